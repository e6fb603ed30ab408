#include "TerminalText.h"

#include "CoreKestly/Platform/DCIUTF16Internal.h"

#include <cstdio>

namespace {

// Characters that act on a terminal instead of showing: C0 and C1 controls and DEL (colours,
// titles, cursor moves, new lines that forge rows), and the marks that reorder the text after
// them.
bool actsOnTerminal(char32_t character) {
    return character < 0x20 || (character >= 0x7F && character <= 0x9F) || character == 0x061C ||
           character == 0x200E || character == 0x200F || (character >= 0x2028 && character <= 0x202E) ||
           (character >= 0x2066 && character <= 0x2069);
}

// The code point of the well-formed UTF-8 sequence `bytes`.
char32_t decoded(std::string_view bytes) {
    if (bytes.size() == 1) return static_cast<unsigned char>(bytes[0]);
    char32_t character = static_cast<unsigned char>(bytes[0]) & (0x7F >> bytes.size());
    for (const char continuation : bytes.substr(1)) character = (character << 6) | (continuation & 0x3F);
    return character;
}

}  // namespace

std::string terminalText(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t length = DCIUTF8CharacterLength(text.substr(at));
        const std::string_view bytes = text.substr(at, length);
        at += length;
        const bool malformed = length == 1 && static_cast<unsigned char>(bytes[0]) >= 0x80;
        char escape[16];
        if (malformed) {
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(bytes[0]));
            shown += escape;
        } else if (const char32_t character = decoded(bytes); actsOnTerminal(character)) {
            std::snprintf(escape, sizeof escape, "\\u{%X}", static_cast<unsigned>(character));
            shown += escape;
        } else if (character == '\\') {
            shown += "\\\\";
        } else {
            shown += bytes;
        }
    }
    return shown;
}

