// The first scan of a root with empty caches, as a watcher's start makes it: the tree built
// and every file hashed on every core. Two roots: 10 files of 200 MB, and 100,000 files of
// 2 KB. For each, three figures taken in the same run, the files in the page cache:
// - one core: the files hashed one after another on one thread, the rate every estimate
//   below is based on;
// - the scan: the tree built and hashed through two empty caches, one thread per core, with
//   the bound for large files, bytes / (cores × one core's rate), for comparison;
// - `find | xargs -P<cores> sha256sum`, what the same work costs with the system's tools.
// Roots are made under $TMPDIR and removed at the end.

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"

#include "support/StandardErrorToNull.h"

#include <chrono>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// `count` files of `size` random bytes, 100 to a folder, read once so they sit in the page cache.
std::vector<std::string> makeRoot(const fs::path& root, int count, size_t size) {
    std::mt19937_64 random(42);
    std::string block(1 << 20, '\0');
    std::vector<std::string> paths;
    for (int i = 0; i < count; ++i) {
        const fs::path path = root / ("folder-" + std::to_string(i / 100)) / ("sample-" + std::to_string(i) + ".wav");
        fs::create_directories(path.parent_path());
        std::ofstream file(path, std::ios::binary);
        for (size_t written = 0; written < size; written += block.size()) {
            const size_t length = std::min(block.size(), size - written);
            for (size_t at = 0; at < length; at += 8) {
                const uint64_t bits = random();
                std::memcpy(block.data() + at, &bits, std::min<size_t>(8, length - at));
            }
            file.write(block.data(), static_cast<std::streamsize>(length));
        }
        paths.push_back(path.string());
    }
    for (const auto& path : paths) KSTSha256ForFileAtPath(path);
    return paths;
}

void measure(const fs::path& scratch, const char* name, int count, size_t size) {
    const fs::path root = scratch / name;
    const auto paths = makeRoot(root, count, size);
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const double bytes = static_cast<double>(count) * static_cast<double>(size);

    auto start = Clock::now();
    for (const auto& path : paths) KSTSha256ForFileAtPath(path);
    const double oneCore = secondsSince(start);

    fs::remove(scratch / "primary.sqlite");
    fs::remove(scratch / "secondary.sqlite");
    double scan = 0;
    {
        const auto queries = std::make_shared<DCICachedFileQueries>(
            DCIFileKinds{{}, {}, {"wav"}}, DCISHACache::initWithCachePath(scratch / "primary.sqlite", nullptr),
            DCISHACache::initWithCachePath(scratch / "secondary.sqlite", nullptr));
        start = Clock::now();
        const auto tree = DCIFolderObject::initWithPath(root, nullptr, queries);
        if (!tree || !tree->generateHashes(cores)) std::printf("%s: the scan failed\n", name);
        scan = secondsSince(start);  // where a watcher is ready; the caches write their records after, on their own thread
    }

    start = Clock::now();
    const std::string command = "find '" + root.string() + "' -type f -print0 | xargs -0 -P" + std::to_string(cores) +
                                " -n 64 sha256sum >/dev/null";
    const int status = std::system(command.c_str());
    const double tools = secondsSince(start);

    std::printf("%s: one core %.3f s (%.0f MB/s); scan on %u threads %.3f s, %.2f x bytes / (cores x one core's rate); "
                "find | xargs -P%u sha256sum %.3f s%s, scan / that %.2f\n",
                name, oneCore, bytes / oneCore / 1e6, cores, scan, scan / (oneCore / cores), cores, tools,
                status == 0 ? "" : " (failed)", scan / tools);
    fs::remove_all(root);
}

}  // namespace

int main() {
    StandardErrorToNull quiet;
    std::string pattern = (fs::temp_directory_path() / "kestly-first-scan-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    measure(pattern, "10 files of 200 MB", 10, 200'000'000);
    measure(pattern, "100,000 files of 2 KB", 100'000, 2'000);
    fs::remove_all(pattern);
    return 0;
}
