#include "CoreKestly/Manifest/DCIManifestLogInternal.h"

size_t DCIManifestCharacterBoundary(std::string_view text, size_t position) {
    if (position >= text.size()) return text.size();
    while (position > 0 && (static_cast<unsigned char>(text[position]) & 0xC0) == 0x80) --position;
    return position;
}

std::string DCIManifestLogged(std::string_view text) {
    if (text.size() <= kDCIManifestLoggedBytes) return std::string(text);
    std::string logged(text.substr(0, DCIManifestCharacterBoundary(text, kDCIManifestLoggedBytes)));
    logged += "…";
    return logged;
}
