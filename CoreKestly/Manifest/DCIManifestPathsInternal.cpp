#include "CoreKestly/Manifest/DCIManifestPathsInternal.h"

#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <algorithm>
#include <vector>

namespace {

// Calls `visit` with each text between separators, empty ones included: "/a//b/" gives "",
// "a", "", "b", "". Stops early when `visit` answers false, and answers whether it did not.
template <class Visit>
bool forEachComponent(std::string_view path, Visit visit) {
    for (size_t start = 0; start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (!visit(path.substr(start, end - start))) return false;
        start = end + 1;
    }
    return true;
}

}  // namespace

std::string DCIManifestPathCleaner::clean(std::string_view path) {
    std::string expanded;
    if (path.starts_with('~')) {
        const std::string_view tilde = path.substr(0, std::min(path.find('/'), path.size()));
        auto [expansion, isNew] = expansions_.try_emplace(std::string(tilde));
        // An unknown user's "~name" stays as it is, and is remembered as such.
        if (isNew) expansion->second = KestlyPath::standardize(tilde);
        expanded = expansion->second;
        expanded += path.substr(tilde.size());
        path = expanded;
    }
    const bool absolute = path.starts_with('/');
    std::vector<std::string_view> kept;
    forEachComponent(path, [&](std::string_view component) {
        if (component == "..") {
            if (absolute && !kept.empty()) kept.pop_back();
        } else if (!component.empty() && component != ".") {
            kept.push_back(component);
        }
        return true;
    });
    std::string cleaned;
    cleaned.reserve(path.size());
    for (const std::string_view component : kept) {
        if (!cleaned.empty()) cleaned += '/';
        cleaned += component;
    }
    return cleaned;
}

size_t DCIManifestFind(std::string_view text, std::string_view pattern) {
    if (pattern.empty()) return 0;
    if (pattern.size() > text.size()) return std::string_view::npos;
    // border[i]: the length of the longest proper prefix of pattern[0..i] that is also its suffix.
    std::vector<size_t> border(pattern.size(), 0);
    for (size_t i = 1, matched = 0; i < pattern.size(); ++i) {
        while (matched > 0 && pattern[i] != pattern[matched]) matched = border[matched - 1];
        if (pattern[i] == pattern[matched]) ++matched;
        border[i] = matched;
    }
    for (size_t i = 0, matched = 0; i < text.size(); ++i) {
        while (matched > 0 && text[i] != pattern[matched]) matched = border[matched - 1];
        if (text[i] == pattern[matched]) ++matched;
        if (matched == pattern.size()) return i + 1 - matched;
    }
    return std::string_view::npos;
}

bool DCIManifestIsPlainRelativePath(std::string_view path) {
    if (path.find('\0') != std::string_view::npos) return false;
    return forEachComponent(path, [](std::string_view component) {
        return !component.empty() && component != "." && component != "..";
    });
}
