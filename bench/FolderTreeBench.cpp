// Building and hashing the tree of a generated project folder: 20,000 files of 4 KiB in 500
// folders, every file of interest. Three figures: the pass with empty caches (every file
// read and hashed), the pass with warm caches (what every rescan of an unchanged folder
// costs), and the floor that any scan must pay, a plain loop that lists every folder and
// reads the status of every file once. The files sit in the page cache for all three.
// The tree is made under $TMPDIR and removed at the end.

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"

#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kTopFolders = 20;
constexpr int kSubFoldersEach = 24;  // 20 + 20 × 24 = 500 folders
constexpr int kFilesPerFolder = 40;  // 500 × 40 = 20,000 files
constexpr size_t kFileSize = 4096;
constexpr int kFiles = (kTopFolders + kTopFolders * kSubFoldersEach) * kFilesPerFolder;

// A fresh folder under $TMPDIR, removed with its contents at the end.
class ScratchFolder {
public:
    explicit ScratchFolder(const char* prefix) {
        std::string pattern = (fs::temp_directory_path() / prefix).string() + "-XXXXXX";
        if (mkdtemp(pattern.data())) path_ = pattern;
    }
    ~ScratchFolder() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

void writeFolderOfFiles(const fs::path& folder, std::mt19937_64& random) {
    fs::create_directories(folder);
    std::vector<uint64_t> words(kFileSize / sizeof(uint64_t));
    for (int i = 0; i < kFilesPerFolder; ++i) {
        std::generate(words.begin(), words.end(), std::ref(random));  // distinct content, distinct hashes
        char name[32];
        std::snprintf(name, sizeof name, "sample-%02d.wav", i);
        std::ofstream(folder / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(kFileSize));
    }
}

void generateTree(const std::string& root) {
    std::mt19937_64 random(42);
    for (int top = 0; top < kTopFolders; ++top) {
        const fs::path topFolder = fs::path(root) / ("folder-" + std::to_string(top));
        writeFolderOfFiles(topFolder, random);
        for (int sub = 0; sub < kSubFoldersEach; ++sub) {
            writeFolderOfFiles(topFolder / ("sub-" + std::to_string(sub)), random);
        }
    }
}

// The floor: list every folder, read the status of every file once; answers the files seen.
int listAndStat(const std::string& folder) {
    DIR* directory = opendir(folder.c_str());
    if (!directory) return 0;
    int files = 0;
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        if (entry->d_type == DT_DIR) {
            files += listAndStat(folder + "/" + name);
            continue;
        }
        struct stat status;
        if (fstatat(dirfd(directory), entry->d_name, &status, 0) == 0) ++files;
    }
    closedir(directory);
    return files;
}

struct Fixture {
    ScratchFolder tree{"kestly-tree-bench"};
    ScratchFolder caches{"kestly-tree-bench-caches"};
    std::map<std::string, double> medianSeconds;  // by pass
};
Fixture* fixture = nullptr;

struct Caches {
    std::shared_ptr<DCISHACache> primary;
    std::shared_ptr<DCISHACache> samples;
    std::shared_ptr<DCIFileQueries> queries;
};

Caches openCaches() {
    Caches caches;
    caches.primary = DCISHACache::initWithCachePath(fixture->caches.path() + "/primary.sqlite", nullptr);
    caches.samples = DCISHACache::initWithCachePath(fixture->caches.path() + "/secondary.sqlite", nullptr);
    caches.queries = std::make_shared<DCICachedFileQueries>(DCIFileKinds{{"als"}, {}, {"wav"}}, caches.primary,
                                                            caches.samples);
    return caches;
}

// Times `pass` once per iteration, with `prepare` and `finish` around it left out of the time,
// and keeps the median under `label`.
template <class Prepare, class Pass, class Finish>
void timePasses(benchmark::State& state, const char* label, Prepare prepare, Pass pass, Finish finish) {
    std::vector<double> seconds;
    for (auto _ : state) {
        prepare();
        const auto start = Clock::now();
        const int files = pass();
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(elapsed);
        seconds.push_back(elapsed);
        if (files != kFiles) state.SkipWithError("the pass did not see every file");
        finish();
    }
    std::sort(seconds.begin(), seconds.end());
    const double median = seconds[seconds.size() / 2];
    fixture->medianSeconds[label] = median;
    state.counters["files_per_s"] = kFiles / median;
    state.counters["us_per_file"] = median * 1e6 / kFiles;
}

int buildAndHash(const Caches& caches) {
    const auto tree = DCIFolderObject::initWithPath(fixture->tree.path(), nullptr, caches.queries);
    if (!tree || !tree->generateHashes()) return 0;
    return static_cast<int>(tree->gatherFiles().size());
}

void BM_EmptyCaches(benchmark::State& state) {
    Caches caches;
    timePasses(
        state, "empty",
        [&] {
            fs::remove_all(fixture->caches.path());
            fs::create_directories(fixture->caches.path());
            caches = openCaches();
        },
        [&] { return buildAndHash(caches); }, [&] { caches = Caches{}; });
    state.counters["MiB_per_s"] = kFiles * kFileSize / (1024.0 * 1024.0) / fixture->medianSeconds["empty"];
}

void BM_WarmCaches(benchmark::State& state) {
    const Caches caches = openCaches();
    buildAndHash(caches);  // fills whatever the cache files did not hold
    timePasses(state, "warm", [] {}, [&] { return buildAndHash(caches); }, [] {});
}

void BM_ScanWithoutHashing(benchmark::State& state) {
    const Caches caches = openCaches();
    timePasses(
        state, "scan", [] {},
        [&] {
            const auto tree = DCIFolderObject::initWithPath(fixture->tree.path(), nullptr, caches.queries);
            return tree ? static_cast<int>(tree->gatherFiles().size()) : 0;
        },
        [] {});
}

void BM_Floor(benchmark::State& state) {
    timePasses(state, "floor", [] {}, [] { return listAndStat(fixture->tree.path()); }, [] {});
}

}  // namespace

BENCHMARK(BM_EmptyCaches)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WarmCaches)->Iterations(7)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ScanWithoutHashing)->Iterations(7)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Floor)->Iterations(7)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Fixture scratch;
    if (scratch.tree.path().empty() || scratch.caches.path().empty()) return 1;
    fixture = &scratch;
    generateTree(scratch.tree.path());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const auto& medians = scratch.medianSeconds;
    if (medians.contains("warm") && medians.contains("floor")) {
        std::printf("warm pass / floor: %.2f (aim: at most 3)\n", medians.at("warm") / medians.at("floor"));
    }
    fixture = nullptr;
    return 0;
}
