#pragma once

#include <optional>
#include <string>
#include <string_view>

/// `bytes` in base64 (RFC 4648, the standard alphabet, padded): how `kestly watch --json`
/// carries names that are not UTF-8, which JSON text cannot hold.
std::string base64Encoded(std::string_view bytes);

/// The bytes that the base64 `text` stands for, or nothing when it is not padded base64 of
/// the standard alphabet (no blanks or line breaks).
std::optional<std::string> base64Decoded(std::string_view text);
