#include "CoreKestly/KestlyUtilities.h"

#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

namespace {

bool equalIgnoringCase(std::string_view text, std::string_view lowerCase) {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(), [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
    });
}

}  // namespace

DCIKestlyDAW DCIKestlyDAWFromString(std::optional<std::string_view> text) {
    if (!text) return DCIKestlyDAWUnknown;
    if (equalIgnoringCase(*text, "ableton")) return DCIKestlyDAWAbleton;
    if (equalIgnoringCase(*text, "logic")) return DCIKestlyDAWLogic;
    return DCIKestlyDAWUnknown;
}

DCIKestlyDAW DCIKestlyDAWFromString(const char* text) {
    return text ? DCIKestlyDAWFromString(std::string_view(text)) : DCIKestlyDAWUnknown;
}

std::string DCIKestlyDAWAsString(DCIKestlyDAW daw) {
    switch (daw) {
        case DCIKestlyDAWAbleton: return "ableton";
        case DCIKestlyDAWLogic: return "logic";
        default: return "Unknown";
    }
}

DCIValue KSTMakeNull(const std::optional<DCIValue>& value) { return value.value_or(DCINull()); }

void RemoveEmptyFoldersUnderPath(std::string_view path) {
    std::string folder(path);
    while (!folder.empty() && folder != "/") {
        std::error_code error;
        if (!std::filesystem::is_directory(folder, error)) return;
        const std::filesystem::directory_iterator entries(folder, error);
        if (error || entries != std::filesystem::directory_iterator()) return;
        // rmdir, not a recursive removal: a file that arrives after the listing keeps its folder.
        if (::rmdir(folder.c_str()) != 0) return;
        folder = KestlyPath::deletingLastComponent(folder);
    }
}
