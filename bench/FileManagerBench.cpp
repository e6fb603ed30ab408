// The file manager at work on a generated root of small files, every one of interest and
// hashed before the figures are taken (warm caches), at 10,000 and 100,000 files, and at
// 1,000,000 with KESTLY_BENCH_LARGE=1 (roots are kept under $TMPDIR between runs then). Figures:
// - change to event: one file rewritten, until the listener on the main thread hears
//   FileModified, 20 times; the floor is the 0.4 s quiet period, as the first notification
//   is not held;
// - resident memory after ready and after those 20 passes, with the heap in use of each;
// - a folder of 2 GB renamed inside the root, to FolderMoved (10,000 files only);
// - a rename storm: 1,000 files renamed in one burst, from the last rename to the last event,
//   with the number of passes that reported them (bursts of events 0.3 s apart or more);
// - idle: the process's CPU time and voluntary context switches over 10 s without a change.
// And first, a stop during a first scan with empty caches, of one file of 8 GB and of 10,000
// small files: from `stop()` to `waitUntilStopped()`'s return.
// Roots are made under $TMPDIR and removed at the end, unless kept for the large run. Each size
// is measured in a process of its own with caches of its own, so that its memory figures carry
// nothing of another size's heap or records.

#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/FileManager/DCIFileManager.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include "support/StandardErrorToNull.h"

#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
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

// What the allocator hands out at the moment, of which the resident figure is the pages.
double heapMegabytes() { return static_cast<double>(mallinfo2().uordblks) / (1 << 20); }

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

double residentMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::stod(line.substr(6)) / 1024;
    }
    return 0;
}

// Waits until `count` events of `type` have arrived, and answers when the last one did.
Clock::time_point waitFor(Recorder& recorder, uint64_t type, size_t count) {
    DCIRunLoop::main().runUntil([&] { return recorder.count(type) >= count; }, std::chrono::seconds(60));
    for (auto event = recorder.events.rbegin(); event != recorder.events.rend(); ++event) {
        if (event->first == type) return event->second;
    }
    return Clock::now();
}

double cpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void measure(const fs::path& scratch, int files, bool withStorm) {
    const fs::path root = scratch / ("root-" + std::to_string(files));
    if (!fs::exists(root)) makeRoot(root, files);
    auto recorder = std::make_shared<Recorder>();
    DCIEventManager::addListener(recorder);
    auto manager = DCIFileManager::init();
    manager->addSecondaryFileExtension("wav");
    const std::string caches = (scratch / ("caches-" + std::to_string(files))).string();
    manager->startWatchingRootFolder(root, caches + "-primary.sqlite", caches + "-secondary.sqlite", nullptr);
    auto& loop = DCIRunLoop::main();
    loop.runUntil([&] { return recorder->count(DCIEventTypeFileManagerReady) > 0; }, 3600s);
    const double readyMegabytes = residentMegabytes(), readyHeap = heapMegabytes();

    std::vector<double> latencies;
    for (int round = 0; round < 20; ++round) {
        loop.runUntil(Clock::now() + 600ms);
        const size_t before = recorder->count(DCIEventTypeFileModified);
        const auto start = Clock::now();
        std::ofstream(root / fileName(0, round), std::ios::app) << round;
        loop.runUntil([&] { return recorder->count(DCIEventTypeFileModified) > before; }, 10s);
        latencies.push_back(seconds(recorder->events.back().second - start));
    }
    std::ranges::sort(latencies);
    std::printf("%7d files: change to FileModified: median %.3f s, best %.3f s, worst %.3f s (floor 0.400 s)\n",
                files, latencies[latencies.size() / 2], latencies.front(), latencies.back());
    std::printf("%7d files: resident memory %.0f MB after ready, %.0f MB after 20 passes (heap in use %.0f MB, %.0f MB)\n",
                files, readyMegabytes, residentMegabytes(), readyHeap, heapMegabytes());

    if (withStorm) {
        // A folder of 2 GB, hashed once, then renamed: the caches know its files by identity.
        const fs::path big = root / "big";
        fs::create_directories(big);
        const std::string block(1 << 20, 'b');
        for (int file = 0; file < 8; ++file) {
            std::ofstream out(big / ("take-" + std::to_string(file) + ".wav"), std::ios::binary);
            for (int megabyte = 0; megabyte < 256; ++megabyte) out << file << megabyte << block;
        }
        waitFor(*recorder, DCIEventTypeFolderAdded, 1);
        loop.runUntil(Clock::now() + 600ms);
        const auto renamed = Clock::now();
        fs::rename(big, root / "big renamed");
        std::printf("%7d files: a folder of 2 GB renamed, to FolderMoved: %.3f s (floor 0.400 s)\n", files,
                    seconds(waitFor(*recorder, DCIEventTypeFolderMoved, 1) - renamed));
        fs::remove_all(root / "big renamed");

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
        std::printf("%7d files: 1,000 renames: last rename to last event %.3f s, %zu moves in %d pass(es)\n", files,
                    seconds(recorder->events.back().second - lastRename), recorder->count(DCIEventTypeFileMoved),
                    passes);

        loop.runUntil(Clock::now() + 1s);
        rusage before, after;
        getrusage(RUSAGE_SELF, &before);
        loop.runUntil(Clock::now() + 10s);
        getrusage(RUSAGE_SELF, &after);
        std::printf("%7d files: idle 10 s: %.1f ms CPU, %ld voluntary context switches\n", files,
                    1000 * (cpuSeconds(after) - cpuSeconds(before)), after.ru_nvcsw - before.ru_nvcsw);
    }
    manager->stop();
    loop.runUntil([&] { return recorder->count(DCIEventTypeFileManagerStopped) > 0; }, 60s);
    manager->waitUntilStopped();
    DCIEventManager::removeListener(recorder);
}

void measureStop(const fs::path& scratch, const char* what, const fs::path& root) {
    fs::remove(scratch / "stop-primary.sqlite");
    fs::remove(scratch / "stop-secondary.sqlite");
    auto recorder = std::make_shared<Recorder>();
    DCIEventManager::addListener(recorder);
    auto manager = DCIFileManager::init();
    manager->addSecondaryFileExtension("wav");
    manager->startWatchingRootFolder(root, scratch / "stop-primary.sqlite", scratch / "stop-secondary.sqlite", nullptr);
    // Nothing reaches the main loop while the tree is hashed: the progress is polled.
    while (manager->firstScanProgress().files == 0) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(50ms);  // hashing under way
    const auto progress = manager->firstScanProgress();
    const bool hashing = progress.files > progress.filesHashed;
    const auto stop = Clock::now();
    manager->stop();
    manager->waitUntilStopped();
    const auto waited = Clock::now();
    waitFor(*recorder, DCIEventTypeFileManagerStopped, 1);
    std::printf("stop during the first scan of %s%s: waitUntilStopped returned after %.1f ms\n", what,
                hashing ? "" : " (already hashed)", 1000 * seconds(waited - stop));
    DCIEventManager::removeListener(recorder);
}

// Runs this program again to measure one size; answers whether it succeeded.
bool measureInProcessOfItsOwn(const fs::path& scratch, int files, bool withStorm) {
    const std::string count = std::to_string(files), directory = scratch.string();
    std::vector<char*> arguments = {const_cast<char*>("/proc/self/exe"), const_cast<char*>("--measure"),
                                    const_cast<char*>(directory.c_str()), const_cast<char*>(count.c_str()),
                                    const_cast<char*>(withStorm ? "storm" : "calm"), nullptr};
    std::fflush(stdout);  // this process's lines come first
    pid_t child;
    if (posix_spawn(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0) return false;
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    StandardErrorToNull quiet;
    if (argc == 5 && std::string(argv[1]) == "--measure") {
        measure(argv[2], std::stoi(argv[3]), std::string(argv[4]) == "storm");
        return 0;
    }
    const char* large = std::getenv("KESTLY_BENCH_LARGE");
    const bool keep = large && std::string(large) == "1";
    std::string scratch = (fs::temp_directory_path() / "kestly-file-manager-bench").string();
    if (!keep) {
        scratch += "-XXXXXX";
        if (!mkdtemp(scratch.data())) return 1;
    }
    fs::create_directories(scratch);
    for (const int files : {10'000, 100'000, 1'000'000}) {
        for (const char* cache : {"-primary.sqlite", "-secondary.sqlite"}) {
            fs::remove(fs::path(scratch) / ("caches-" + std::to_string(files) + cache));
        }
    }
    const fs::path oneFile = fs::path(scratch) / "one large file";
    fs::create_directories(oneFile);
    std::ofstream(oneFile / "take.wav") << "x";
    fs::resize_file(oneFile / "take.wav", std::uintmax_t{8} << 30);
    measureStop(scratch, "one file of 8 GB", oneFile);
    fs::remove_all(oneFile);
    const fs::path small = fs::path(scratch) / "root-10000";
    if (!fs::exists(small)) makeRoot(small, 10'000);
    measureStop(scratch, "10,000 small files", small);
    bool measured = measureInProcessOfItsOwn(scratch, 10'000, true) && measureInProcessOfItsOwn(scratch, 100'000, false);
    if (keep) measured = measured && measureInProcessOfItsOwn(scratch, 1'000'000, false);
    if (!keep) fs::remove_all(scratch);
    return measured ? 0 : 1;
}
