#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <pwd.h>
#include <unistd.h>

namespace KestlyPath {
namespace {

bool isAbsolute(std::string_view path) { return !path.empty() && path.front() == '/'; }

std::vector<std::string_view> nonEmptyComponents(std::string_view path) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (start < path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start) pieces.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

// Keeps the root: "//" becomes "/", not "".
std::string_view withoutTrailingSeparators(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

// `lookUp` is getpwnam_r or getpwuid_r bound to its key.
template <class LookUp>
std::optional<std::string> homeFromUserDatabase(LookUp lookUp) {
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd* found = nullptr;
    int error;
    while ((error = lookUp(&entry, buffer.data(), buffer.size(), &found)) == ERANGE && buffer.size() < (1u << 20))
        buffer.resize(buffer.size() * 2);
    if (error != 0 || !found || !found->pw_dir || !*found->pw_dir) return std::nullopt;
    return std::string(found->pw_dir);
}

std::optional<std::string> homeOfCurrentUser() {
    if (const char* home = std::getenv("HOME"); home && *home) return std::string(home);
    return homeFromUserDatabase([](passwd* entry, char* buffer, size_t size, passwd** found) {
        return getpwuid_r(getuid(), entry, buffer, size, found);
    });
}

std::optional<std::string> homeOfUser(const std::string& name) {
    return homeFromUserDatabase([&name](passwd* entry, char* buffer, size_t size, passwd** found) {
        return getpwnam_r(name.c_str(), entry, buffer, size, found);
    });
}

std::string expandingTilde(std::string_view path) {
    if (path.empty() || path.front() != '~') return std::string(path);
    const size_t userEnd = std::min(path.find('/'), path.size());
    const std::string user(path.substr(1, userEnd - 1));
    const auto home = user.empty() ? homeOfCurrentUser() : homeOfUser(user);
    if (!home) return std::string(path);
    return *home + std::string(path.substr(userEnd));
}

}  // namespace

std::string standardize(std::string_view path) {
    const std::string expanded = expandingTilde(path);
    const bool absolute = isAbsolute(expanded);
    std::vector<std::string_view> kept;
    for (const std::string_view component : nonEmptyComponents(expanded)) {
        if (component == ".") continue;
        if (component == ".." && absolute) {
            if (!kept.empty()) kept.pop_back();
            continue;
        }
        kept.push_back(component);
    }
    if (!absolute && kept.empty()) return expanded.empty() ? "" : ".";

    std::string standardized = absolute ? "/" : "";
    for (size_t i = 0; i < kept.size(); ++i) {
        if (i > 0) standardized += '/';
        standardized += kept[i];
    }
    return standardized;
}

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> result;
    if (isAbsolute(path)) result.emplace_back("/");
    for (const std::string_view component : nonEmptyComponents(path)) result.emplace_back(component);
    return result;
}

std::string appendingComponent(std::string_view base, std::string_view component) {
    if (base.empty()) return std::string(component);
    const size_t componentStart = component.find_first_not_of('/');
    if (componentStart == std::string_view::npos) return std::string(base);
    while (!base.empty() && base.back() == '/') base.remove_suffix(1);
    std::string joined(base);
    joined += '/';
    joined += component.substr(componentStart);
    return joined;
}

std::string lastComponent(std::string_view path) {
    const std::string_view trimmed = withoutTrailingSeparators(path);
    if (trimmed == "/") return "/";
    const size_t separator = trimmed.rfind('/');
    return std::string(separator == std::string_view::npos ? trimmed : trimmed.substr(separator + 1));
}

std::string deletingLastComponent(std::string_view path) {
    const std::string_view trimmed = withoutTrailingSeparators(path);
    if (trimmed == "/") return "/";
    const size_t separator = trimmed.rfind('/');
    if (separator == std::string_view::npos) return "";
    if (separator == 0) return "/";
    return std::string(withoutTrailingSeparators(trimmed.substr(0, separator)));
}

std::string extension(std::string_view path) {
    const std::string name = lastComponent(path);
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return "";
    return name.substr(dot + 1);
}

std::string deletingExtension(std::string_view path) {
    const std::string_view trimmed = withoutTrailingSeparators(path);
    const size_t extensionLength = extension(trimmed).size();
    if (extensionLength == 0) return std::string(trimmed);
    return std::string(trimmed.substr(0, trimmed.size() - extensionLength - 1));
}

bool isSameOrBelow(std::string_view path, std::string_view folder) {
    if (!path.starts_with(folder)) return false;
    return path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/';
}

}  // namespace KestlyPath
