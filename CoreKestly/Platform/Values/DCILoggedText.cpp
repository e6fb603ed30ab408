#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"

size_t DCIUTF8CharacterBoundary(std::string_view text, size_t position) {
    if (position >= text.size()) return text.size();
    while (position > 0 && (static_cast<unsigned char>(text[position]) & 0xC0) == 0x80) --position;
    return position;
}

std::string DCILoggedText(std::string_view text, size_t limit) {
    std::string logged(text.substr(0, DCIUTF8CharacterBoundary(text, limit)));
    for (char& c : logged) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    if (logged.size() < text.size()) logged += "…";
    return logged;
}
