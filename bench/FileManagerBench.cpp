// The file manager at work on a generated root of small files, every one of interest and
// hashed before the figures are taken (warm caches). Three figures:
// - change to event: one file rewritten, until the listener on the main thread hears
//   FileModified; the floor is the 0.4 s quiet period, as the first notification is not held;
// - a rename storm: 1,000 files renamed in one burst, from the last rename to the last event,
//   with the number of passes that reported them (bursts of events 0.3 s apart or more);
// - idle: the process's CPU time and voluntary context switches over 10 s without a change.
// Roots are made under $TMPDIR and removed at the end.

#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/FileManager/DCIFileManager.h"
#include "CoreKestly/Platform/DCIRunLoop.h"

#include "support/StandardErrorToNull.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kFilesPerFolder = 100;

class Recorder : public DCIEventListener {
public:
    std::vector<std::pair<uint64_t, Clock::time_point>> events;
    void handleEvent(const std::shared_ptr<DCIEvent>& event) override { events.emplace_back(event->type(), Clock::now()); }
    size_t count(uint64_t type) const {
        return static_cast<size_t>(std::ranges::count_if(events, [&](const auto& e) { return e.first == type; }));
    }
};

std::string fileName(int folder, int file) {
    return "folder-" + std::to_string(folder) + "/sample-" + std::to_string(file) + ".wav";
}

void makeRoot(const fs::path& root, int files) {
    for (int i = 0; i < files; ++i) {
        const fs::path path = root / fileName(i / kFilesPerFolder, i % kFilesPerFolder);
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "sample " << i << std::string(1000, 'x');
    }
}

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void measure(const fs::path& scratch, int files, bool withStorm) {
    const fs::path root = scratch / ("root-" + std::to_string(files));
    makeRoot(root, files);
    auto recorder = std::make_shared<Recorder>();
    DCIEventManager::addListener(recorder);
    auto manager = DCIFileManager::init();
    manager->addSecondaryFileExtension("wav");
    manager->startWatchingRootFolder(root, scratch / "primary.sqlite", scratch / "secondary.sqlite", nullptr);
    auto& loop = DCIRunLoop::main();
    loop.runUntil([&] { return recorder->count(DCIEventTypeFileManagerReady) > 0; }, 600s);

    std::vector<double> latencies;
    for (int round = 0; round < 7; ++round) {
        loop.runUntil(Clock::now() + 600ms);
        const size_t before = recorder->count(DCIEventTypeFileModified);
        const auto start = Clock::now();
        std::ofstream(root / fileName(0, round), std::ios::app) << round;
        loop.runUntil([&] { return recorder->count(DCIEventTypeFileModified) > before; }, 10s);
        latencies.push_back(seconds(recorder->events.back().second - start));
    }
    std::ranges::sort(latencies);
    std::printf("%6d files: change to FileModified: median %.3f s, best %.3f s, worst %.3f s (floor 0.400 s)\n",
                files, latencies[latencies.size() / 2], latencies.front(), latencies.back());

    if (withStorm) {
        loop.runUntil(Clock::now() + 600ms);
        recorder->events.clear();
        for (int i = 0; i < 1000; ++i) fs::rename(root / fileName(i / kFilesPerFolder, i % kFilesPerFolder),
                                                   root / (fileName(i / kFilesPerFolder, i % kFilesPerFolder) + ".moved.wav"));
        const auto lastRename = Clock::now();
        loop.runUntil([&] { return recorder->count(DCIEventTypeFileMoved) >= 1000; }, 60s);
        int passes = recorder->events.empty() ? 0 : 1;
        for (size_t i = 1; i < recorder->events.size(); ++i) {
            if (recorder->events[i].second - recorder->events[i - 1].second >= 300ms) ++passes;
        }
        std::printf("%6d files: 1,000 renames: last rename to last event %.3f s, %zu moves in %d pass(es)\n", files,
                    seconds(recorder->events.back().second - lastRename), recorder->count(DCIEventTypeFileMoved),
                    passes);

        loop.runUntil(Clock::now() + 1s);
        rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        loop.runUntil(Clock::now() + 10s);
        getrusage(RUSAGE_SELF, &after);
        std::printf("%6d files: idle 10 s: %.1f ms CPU, %ld voluntary context switches\n", files,
                    1000 * (cpuSeconds(after) - cpuSeconds(before)), after.ru_nvcsw - before.ru_nvcsw);
    }
    manager->stop();
    loop.runUntil([&] { return recorder->count(DCIEventTypeFileManagerStopped) > 0; }, 60s);
    manager->waitUntilStopped();
    DCIEventManager::removeListener(recorder);
}

}  // namespace

int main() {
    StandardErrorToNull quiet;
    std::string pattern = (fs::temp_directory_path() / "kestly-file-manager-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) return 1;
    measure(pattern, 1000, false);
    measure(pattern, 10000, true);
    fs::remove_all(pattern);
    return 0;
}
