#include "CoreKestly/Manifest/DCIManifestJSONInternal.h"

#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"

#include <cstring>
#include <exception>

using nlohmann::json;

namespace {

// How much of a value a log line shows; the whole is then cut to kDCILoggedTextBytes.
constexpr size_t kShownElements = 16;  // of each array and object
constexpr size_t kShownStringBytes = 256;

// The position of the quote that closes the string whose contents begin at `start`, or npos.
// Strings are most of a manifest's bytes, so they are skipped with memchr.
size_t closingQuote(std::string_view bytes, size_t start) {
    for (size_t at = start; at < bytes.size(); ++at) {
        const void* quote = std::memchr(bytes.data() + at, '"', bytes.size() - at);
        if (!quote) return std::string_view::npos;
        at = static_cast<size_t>(static_cast<const char*>(quote) - bytes.data());
        size_t backslashes = 0;
        while (at - backslashes > start && bytes[at - backslashes - 1] == '\\') ++backslashes;
        if (backslashes % 2 == 0) return at;
    }
    return std::string_view::npos;
}

// Why the parser should not be given `bytes` (too deep, too many values), or nothing. Values
// are counted from above, a container and each separator as one. Strings are skipped exactly
// as JSON does, so a bracket inside a string is not counted. On bytes that are not JSON the
// counts may run high, which only refuses what the parser would refuse.
std::optional<std::string> refusalBeforeParsing(std::string_view bytes) {
    size_t depth = 0, values = 1;
    for (size_t i = 0; i < bytes.size(); ++i) {
        switch (bytes[i]) {
            case '"':
                i = closingQuote(bytes, i + 1);
                if (i == std::string_view::npos) return std::nullopt;
                break;
            case '[':
            case '{':
                if (++depth > kDCIManifestMaximumNesting) {
                    return "JSON nested deeper than " + std::to_string(kDCIManifestMaximumNesting) + " levels";
                }
                [[fallthrough]];
            case ',':
                if (++values > kDCIManifestMaximumValues) {
                    return "JSON of more than " + std::to_string(kDCIManifestMaximumValues) + " values";
                }
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default: break;
        }
    }
    return std::nullopt;
}

std::string serialized(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

void appendElision(std::string& out, size_t left) {
    out += "... (";
    out += std::to_string(left);
    out += " more)";
}

void appendString(std::string& out, std::string_view text) {
    if (text.size() <= kShownStringBytes) {
        out += serialized(json(text));
        return;
    }
    out += serialized(json(text.substr(0, DCIUTF8CharacterBoundary(text, kShownStringBytes))));
    out += "...";
}

void appendDescription(std::string& out, const json& value) {
    if (out.size() > kDCILoggedTextBytes) return;
    if (value.is_string()) return appendString(out, value.get_ref<const std::string&>());
    if (!value.is_structured()) {
        out += serialized(value);
        return;
    }
    const bool isObject = value.is_object();
    out += isObject ? '{' : '[';
    size_t shown = 0;
    for (auto it = value.begin(); it != value.end(); ++it, ++shown) {
        if (shown > 0) out += ',';
        if (shown == kShownElements || out.size() > kDCILoggedTextBytes) {
            appendElision(out, value.size() - shown);
            break;
        }
        if (isObject) {
            appendString(out, it.key());
            out += ':';
        }
        appendDescription(out, it.value());
    }
    out += isObject ? '}' : ']';
}

}  // namespace

DCIManifestParse DCIManifestParseObject(std::string_view bytes) {
    if (auto refusal = refusalBeforeParsing(bytes)) return {std::nullopt, std::move(*refusal)};
    json parsed;
    try {
        parsed = json::parse(bytes.begin(), bytes.end());
    } catch (const std::exception& error) {
        // The parser's message quotes the token it stopped at, which may be most of the input.
        return {std::nullopt, DCILoggedText(error.what())};
    }
    if (!parsed.is_object()) {
        return {std::nullopt, std::string("the top-level value is of type ") + parsed.type_name() + ", not object"};
    }
    return {std::move(parsed), {}};
}

const json* DCIManifestValue(const json& object, std::string_view key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) return nullptr;
    return &*found;
}

const std::string* DCIManifestString(const json& object, std::string_view key) {
    const json* value = DCIManifestValue(object, key);
    return value && value->is_string() ? &value->get_ref<const std::string&>() : nullptr;
}

std::optional<std::string> DCIManifestOptionalString(const json& object, std::string_view key) {
    const std::string* value = DCIManifestString(object, key);
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

std::optional<uint64_t> DCIManifestUnsigned(const json& object, std::string_view key) {
    const json* value = DCIManifestValue(object, key);
    if (!value || !value->is_number_unsigned()) return std::nullopt;
    return value->get<uint64_t>();
}

bool DCIManifestFlag(const json& object, std::string_view key) {
    const json* value = DCIManifestValue(object, key);
    if (!value) return false;
    if (value->is_boolean()) return value->get<bool>();
    return value->is_number() && *value != 0;
}

std::string DCIManifestDescribe(const json& value) {
    std::string out;
    appendDescription(out, value);
    return DCILoggedText(out);
}
