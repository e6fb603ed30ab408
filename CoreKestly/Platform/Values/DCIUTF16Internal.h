#pragma once

#include <cstddef>
#include <string_view>

// Lengths and positions as the platform's strings count them: in UTF-16 code units. The
// library keeps its text in UTF-8, so wherever a length or an offset of a path carries
// meaning, it is measured through these helpers rather than in bytes, and a cut is always
// made between whole characters.

/// How many UTF-16 code units `text` takes: one for each character of the Basic Multilingual
/// Plane, two for each character beyond it, and one for each byte that does not belong to a
/// well-formed UTF-8 sequence (it would decode as one replacement character).
size_t DCIUTF16Length(std::string_view text);

/// How many bytes the first character of `text` takes: 1 to 4 for a well-formed UTF-8
/// sequence, 1 for a byte that starts none, 0 for the empty text.
size_t DCIUTF8CharacterLength(std::string_view text);
