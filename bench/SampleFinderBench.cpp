// How long a sample search takes to gather its candidates, against the tools it stands on,
// run alone in the same process:
// - a locate database of 1,000,000 paths, two names with 10 matches each, "Target Kick.wav"
//   (letters only) and "Kick 42.wav", against `plocate -d DB -i -b NAME`: the search of the
//   name as spelt, which plocate looks up in its index and the finder makes first, and the
//   search of every folded spelling, for which plocate reads its whole database;
// - the folder scan over a tree of 100,000 files, against `find DIR -iname NAME`.
// Making a million files takes a minute or more, so both trees and the database are kept in
// $TMPDIR/kestly-bench-sample-finder and reused by later runs; delete the folder to start over.

#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

const char* const kNames[] = {"Target Kick.wav", "Kick 42.wav"};

const fs::path& benchFolder() {
    static const fs::path folder = fs::temp_directory_path() / "kestly-bench-sample-finder";
    return folder;
}

// `folders` folders of `filesEach` empty files, the ten folders that are multiples of
// folders/10 holding one file of each name in place of a numbered one. Kept once complete.
std::string makeTree(const std::string& name, int folders, int filesEach) {
    const fs::path root = benchFolder() / name;
    if (fs::exists(root / ".complete")) return root.string();
    fs::remove_all(root);
    std::fprintf(stderr, "Making %d files in %s...\n", folders * filesEach, root.c_str());
    for (int folder = 0; folder < folders; ++folder) {
        const fs::path path = root / ("d" + std::to_string(folder));
        fs::create_directories(path);
        const bool holdsNames = folder % (folders / 10) == 0;
        for (int file = holdsNames ? 2 : 0; file < filesEach; ++file)
            close(open((path / ("sample " + std::to_string(folder * filesEach + file) + ".wav")).c_str(),
                       O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        for (const char* sample : kNames) {
            if (holdsNames) close(open((path / sample).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        }
    }
    close(open((root / ".complete").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    return root.string();
}

// Runs `arguments` and counts the lines of its output; -1 when it cannot run.
int runCountingLines(std::vector<std::string> arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    int lines = 0;
    char buffer[65536];
    for (ssize_t count; error == 0 && (count = read(ends[0], buffer, sizeof buffer)) > 0;)
        for (ssize_t i = 0; i < count; ++i) lines += buffer[i] == '\n';
    close(ends[0]);
    if (error == 0) waitpid(pid, nullptr, 0);
    return error == 0 ? lines : -1;
}

const std::string& locateDatabase() {
    static const std::string database = [] {
        const std::string tree = makeTree("locate-tree", 1000, 1000);
        const std::string path = (benchFolder() / "locate.db").string();
        if (!fs::exists(path))
            runCountingLines({"updatedb", "--require-visibility", "0", "--database-root", tree, "--output", path});
        return path;
    }();
    return database;
}

const std::string& scanTree() {
    static const std::string tree = makeTree("scan-tree", 100, 1000);
    return tree;
}

size_t gather(const DCIMetadataQuerySettings& settings, const char* name,
              DCIMetadataQueryReach reach = DCIMetadataQueryReach::foldedNames) {
    DCIMetadataQuery query(settings);
    std::optional<size_t> found;
    query.startQuery(name, [&](const auto& gathered) { found = gathered.paths.size(); }, {}, {reach, {}});
    DCIRunLoop::main().runUntil([&] { return found.has_value(); }, std::chrono::minutes(1));
    return found.value_or(0);
}

void reportFound(benchmark::State& state, size_t found) {
    state.counters["found"] = static_cast<double>(found);
    if (found != 10) state.SkipWithError("expected 10 matches");
}

void BM_LocateQuery(benchmark::State& state) {
    DCIMetadataQuerySettings settings;
    settings.backend = DCIMetadataQueryBackend::locateDatabase;
    settings.locateDatabasePath = locateDatabase();
    size_t found = 0;
    for (auto _ : state) found = gather(settings, kNames[state.range(0)], DCIMetadataQueryReach(state.range(1)));
    reportFound(state, found);
}

void BM_PlocateAlone(benchmark::State& state) {
    const std::string& database = locateDatabase();
    int found = 0;
    for (auto _ : state) found = runCountingLines({"plocate", "-d", database, "-i", "-b", kNames[state.range(0)]});
    reportFound(state, static_cast<size_t>(found));
}

void BM_ScanQuery(benchmark::State& state) {
    DCIMetadataQuerySettings settings;
    settings.backend = DCIMetadataQueryBackend::folderScan;
    settings.scanFolders = {scanTree()};
    size_t found = 0;
    for (auto _ : state) found = gather(settings, kNames[0]);
    reportFound(state, found);
}

void BM_FindAlone(benchmark::State& state) {
    const std::string& tree = scanTree();
    int found = 0;
    for (auto _ : state) found = runCountingLines({"find", tree, "-iname", kNames[0]});
    reportFound(state, static_cast<size_t>(found));
}

// Second argument: 0 every folded spelling, 1 the spellings as given.
BENCHMARK(BM_LocateQuery)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlocateAlone)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ScanQuery)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FindAlone)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
