#include "TerminalText.h"

#include "CoreKestly/Platform/Values/DCIUTF16Internal.h"

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

bool isMalformed(std::string_view character) {
    return character.size() == 1 && static_cast<unsigned char>(character[0]) >= 0x80;
}

}  // namespace

bool needsTerminalEscape(std::string_view character) {
    return isMalformed(character) || actsOnTerminal(decoded(character));
}

bool isUTF8(std::string_view text) {
    for (size_t length; !text.empty(); text.remove_prefix(length)) {
        length = DCIUTF8CharacterLength(text);
        if (isMalformed(text.substr(0, length))) return false;
    }
    return true;
}

std::string terminalText(std::string_view text) {
    std::string shown;
    shown.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t length = DCIUTF8CharacterLength(text.substr(at));
        const std::string_view bytes = text.substr(at, length);
        at += length;
        char escape[16];
        if (isMalformed(bytes)) {
            std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned char>(bytes[0]));
            shown += escape;
        } else if (needsTerminalEscape(bytes)) {
            std::snprintf(escape, sizeof escape, "\\u{%X}", static_cast<unsigned>(decoded(bytes)));
            shown += escape;
        } else {
            shown += bytes == "\\" ? "\\\\" : bytes;
        }
    }
    return shown;
}
