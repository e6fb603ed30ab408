// The SHA cache at the size of a large sample library: a cache file of 100,000 records, each
// for a real (empty) file. Measures the load (reading the file and checking every file's
// modification time), a persist after one record changed (to the moment it is on disk), and
// one lookup that hits.
//
// The files are made under TMPDIR (else /tmp) and removed at the end.

#include "CoreKestly/FileSystem/DCISHACache.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr int kRecordCount = 100'000;
constexpr int kFilesPerFolder = 1000;

std::filesystem::path gFolder;
std::string gCachePath;
std::vector<std::string> gPaths;

void makeFilesAndCache() {
    const char* temporary = std::getenv("TMPDIR");
    gFolder = std::filesystem::path(temporary && *temporary ? temporary : "/tmp") /
              ("kestly-cache-bench-" + std::to_string(getpid()));
    gCachePath = (gFolder / "sha.cache").string();
    for (int i = 0; i < kRecordCount; ++i) {
        const auto folder = gFolder / ("folder" + std::to_string(i / kFilesPerFolder));
        if (i % kFilesPerFolder == 0) std::filesystem::create_directories(folder);
        gPaths.push_back((folder / ("sample" + std::to_string(i) + ".wav")).string());
        std::ofstream{gPaths.back()};
    }
    auto cache = DCISHACache::initWithCachePath(gCachePath, [](const std::string& path) {
        return std::optional<std::string>(std::filesystem::path(path).filename().string());
    });
    for (const auto& path : gPaths) cache->SHAForFile(path);
}

void loadCache(benchmark::State& state) {
    for (auto _ : state) {
        auto cache = DCISHACache::initWithCachePath(gCachePath, nullptr);
        state.PauseTiming();
        if (cache->shaCache().size() != kRecordCount) state.SkipWithError("records were lost");
        cache.reset();
        state.ResumeTiming();
    }
}

void persistOneChange(benchmark::State& state) {
    auto cache = DCISHACache::initWithCachePath(gCachePath, nullptr);
    int64_t second = 1'600'000'000;
    for (auto _ : state) {
        state.PauseTiming();
        ++second;
        cache->cacheFile(gPaths[static_cast<size_t>(second) % gPaths.size()], false,
                         DCIFileStamp{DCIDate::dateWithSecondsSince1970(second), 0, 0});
        state.ResumeTiming();
        cache->persist();
        cache->waitUntilPersisted();
    }
}

void lookUpAHit(benchmark::State& state) {
    auto cache = DCISHACache::initWithCachePath(gCachePath, nullptr);
    size_t next = 0;
    for (auto _ : state) benchmark::DoNotOptimize(cache->SHAForFile(gPaths[next++ % gPaths.size()]));
}

}  // namespace

BENCHMARK(loadCache)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(persistOneChange)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(200);
BENCHMARK(lookUpAHit)->Unit(benchmark::kMicrosecond)->UseRealTime();

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    makeFilesAndCache();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(gFolder, ignored);
    return 0;
}
