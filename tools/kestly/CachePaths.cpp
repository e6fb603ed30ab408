#include "CachePaths.h"

#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

std::string defaultCacheFolder() {
    const char* cacheHome = std::getenv("XDG_CACHE_HOME");
    if (cacheHome && cacheHome[0] == '/') return KestlyPath::appendingComponent(cacheHome, "kestly");
    return KestlyPath::standardize("~/.cache/kestly");
}

}  // namespace

std::optional<std::string> absoluteStandardPath(const std::string& path) {
    std::string standard = KestlyPath::standardize(path);
    if (standard.starts_with('/')) return standard;
    std::error_code error;
    const auto workingFolder = std::filesystem::current_path(error);
    if (error) return std::nullopt;
    return KestlyPath::standardize(KestlyPath::appendingComponent(workingFolder.string(), standard));
}

int completeCachePaths(CachePaths& paths) {
    if (paths.primary.empty() || paths.secondary.empty()) {
        const std::string folder = defaultCacheFolder();
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        if (error) {
            std::fprintf(stderr, "kestly: %s: %s\n", folder.c_str(), error.message().c_str());
            return 1;
        }
        if (paths.primary.empty()) paths.primary = KestlyPath::appendingComponent(folder, "primary.sqlite");
        if (paths.secondary.empty()) paths.secondary = KestlyPath::appendingComponent(folder, "secondary.sqlite");
    }
    const auto primary = absoluteStandardPath(paths.primary);
    if (primary && primary == absoluteStandardPath(paths.secondary)) {
        std::fprintf(stderr, "kestly: the primary and the secondary cache need files of their own\n");
        return 2;
    }
    return 0;
}
