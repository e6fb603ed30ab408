#pragma once

#include "CoreKestly/Platform/Values/DCIObject.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Reading manifest JSON, which arrives from the network: any bytes at all must give an object
// or a reason, and every value is read with the type the format gives it or not at all.

/// Documents nested deeper than this are refused as unparseable. A manifest needs five levels;
/// the limit keeps every recursive walk of a parsed document (copies, comparisons, rendering)
/// well within the stack.
inline constexpr size_t kDCIManifestMaximumNesting = 64;
/// Documents of more values than this are refused as unparseable. A parsed value takes 30 to
/// 100 times the bytes it is written in ("{}," is three), so a document of a few hundred
/// megabytes would otherwise take gigabytes; an entry of a manifest holds about a dozen.
inline constexpr size_t kDCIManifestMaximumValues = 2'000'000;

/// What parsing manifest bytes gave: the top-level object, or why there is none.
struct DCIManifestParse {
    std::optional<nlohmann::json> object;
    std::string error;
};

/// Parses `bytes` as one JSON object. Bytes that are not JSON (invalid UTF-8 inside a string
/// included), JSON nested deeper than `kDCIManifestMaximumNesting` or of more values than
/// `kDCIManifestMaximumValues`, and a top-level value other than an object give no object and
/// a sentence saying why.
DCIManifestParse DCIManifestParseObject(std::string_view bytes);

// Typed reads of one key of an object. A value of another JSON type than the one asked for
// reads as missing, and so does null.

/// The value under `key`, or nullptr when it is missing or null.
const nlohmann::json* DCIManifestValue(const nlohmann::json& object, std::string_view key);
/// The string under `key`, or nullptr.
const std::string* DCIManifestString(const nlohmann::json& object, std::string_view key);
/// The string under `key`, copied, or nothing.
std::optional<std::string> DCIManifestOptionalString(const nlohmann::json& object, std::string_view key);
/// The number under `key` when it is written as an integer from 0 to 2^64-1; a fraction, an
/// exponent, a negative or a larger number reads as missing.
std::optional<uint64_t> DCIManifestUnsigned(const nlohmann::json& object, std::string_view key);
/// True for JSON true and for any number other than 0; false for everything else.
bool DCIManifestFlag(const nlohmann::json& object, std::string_view key);

/// A JSON value as log lines show it: compact JSON, with long arrays, objects and strings cut
/// short and marked, and the whole cut like any logged manifest value (`DCILoggedText`),
/// so that a huge manifest makes a readable line.
std::string DCIManifestDescribe(const nlohmann::json& value);

/// The same rendering as a log-line argument, made only when the line is written: an
/// information line that `VERBOSE_LOGGING` silences costs nothing.
class DCIManifestJSONDescription : public DCIObject {
public:
    explicit DCIManifestJSONDescription(const nlohmann::json& value) : value_(value) {}
    std::string description() const override { return DCIManifestDescribe(value_); }

private:
    const nlohmann::json& value_;
};
