// The watcher thread: one run of the file manager, from the first tree to the teardown.

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include <sys/stat.h>

#include <algorithm>

namespace {

using namespace std::chrono_literals;

void post(uint64_t type) { DCIEventManager::postEvent(DCIEvent::commonEventWithType(type)); }

// Pauses between attempts to hash a first tree that keeps failing: growing, so that a file
// that can never be read costs little, yet short at first, for a file that was being written.
constexpr auto kFirstRetryPause = 50ms;
constexpr auto kLongestRetryPause = 5000ms;

}  // namespace

bool DCIFileManager::runIsCurrent(uint64_t generation) const {
    return started() && generation_.load() == generation;
}

void DCIFileManager::waitUntilStopped() {
    std::vector<std::thread> ended;
    {
        std::unique_lock lock(runs_->mutex);
        runs_->ended.wait(lock, [this] { return runs_->alive == 0; });
        ended.swap(runs_->threads);
    }
    joinEnded(std::move(ended));
}

void DCIFileManager::joinEnded(std::vector<std::thread> threads) {
    for (auto& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id()) thread.detach();
        else thread.join();
    }
}

void DCIFileManager::runEnded(Runs& runs) {
    {
        std::lock_guard lock(runs.mutex);
        --runs.alive;
    }
    runs.ended.notify_all();
}

bool DCIFileManager::rootExists() const {
    const auto root = rootFolder();
    struct stat status;
    return root && stat(root->absolutePath().c_str(), &status) == 0;
}

std::shared_ptr<DCIFolderObject> DCIFileManager::buildTree(const std::string& rootPath) {
    return DCIFolderObject::initWithPath(rootPath, nullptr, weak_from_this());
}

void DCIFileManager::threadMain(const std::string& rootPath, uint64_t generation, const std::string& primaryCachePath,
                                const std::string& secondaryCachePath, const DCISasIDCalculator& sasIDCalculator) {
    // The run before this one ends first, caches released, so no two runs overlap.
    std::lock_guard run(runLock_);
    if (generation_.load() != generation) {
        // Superseded by a later start before it began: it ends as a stopped run does.
        post(DCIEventTypeFileManagerStopped);
        return;
    }
    setCaches(DCISHACache::initWithCachePath(primaryCachePath, sasIDCalculator),
              DCISHACache::initWithCachePath(secondaryCachePath, sasIDCalculator));
    {
        // File actions queued while no run was going are carried out on the first turn.
        std::lock_guard lock(SyncronizeMutex);
        haveEvents_ = true;
        haveFSEvents_ = false;
    }
    pointSampleFinderAt(rootPath);
    DCIFSEventStream::Options options;
    {
        std::lock_guard lock(settingsMutex_);
        options = streamOptions_;
    }
    // The stream starts before the first scan, so that changes made during it are noticed.
    auto stream = std::make_unique<DCIFSEventStream>(
        rootPath, [this] { signalFileManagerThread(true); },
        [](const std::string& problem) { DCLogError("%@", problem); }, options);
    stream->start();

    buildFirstTree(generation, rootPath);
    DCLogInfo("Posting \"We're ready\" from the file manager");
    post(DCIEventTypeFileManagerReady);
    if (runIsCurrent(generation)) watchUntilStopped(generation);

    DCLogInfo("File manager loop completed");
    while (processNextFileEvent()) {}
    post(DCIEventTypeFileManagerStopped);
    stream.reset();
    setCaches(nullptr, nullptr);  // releasing a cache writes what it has not saved yet
    // A tree built after `stop` (by the start-up scan or a last pass) is not kept.
    if (!runIsCurrent(generation)) rootFolder_.store(nullptr);
}

void DCIFileManager::pointSampleFinderAt(const std::string& rootPath) {
    const auto finder = sampleFinder();
    if (!finder) return;
    DCIMetadataQuerySettings settings = finder->querySettings();
    std::lock_guard lock(settingsMutex_);
    // Folders the host chose itself are left alone.
    if (!settings.scanFolders.empty() && settings.scanFolders != sampleFinderFoldersSetByRun_) return;
    const std::string music = DCIMetadataQuerySettings::userMusicFolder();
    settings.scanFolders = {music};
    if (!KestlyPath::isSameOrBelow(rootPath, music)) settings.scanFolders.insert(settings.scanFolders.begin(), rootPath);
    sampleFinderFoldersSetByRun_ = settings.scanFolders;
    finder->setQuerySettings(std::move(settings));
}

void DCIFileManager::buildFirstTree(uint64_t generation, const std::string& rootPath) {
    startingUp_ = generation;
    struct EndOfStartUp {
        std::atomic<uint64_t>& startingUp;
        ~EndOfStartUp() { startingUp = 0; }
    } endOfStartUp{startingUp_};
    auto pause = kFirstRetryPause;
    for (;;) {
        std::shared_ptr<DCIFolderObject> tree;
        {
            std::lock_guard tree_lock(treeLock_);
            tree = buildTree(rootPath);
            rootFolder_.store(tree);
        }
        if (!rootExists()) {
            if (runIsCurrent(generation)) {
                DCLogInfo("The root folder has been removed while starting");
                post(DCIEventTypeRootFolderRemoved);
                started_ = false;
            }
            return;
        }
        if (tree->generateHashes()) return;
        // A stop ends the retries: a file that never hashes must not keep the run alive.
        if (!runIsCurrent(generation)) return;
        if (pause < kLongestRetryPause) {
            DCLogInfo("Some files under %@ could not be hashed; building the tree again in %.2f s", rootPath,
                      std::chrono::duration<double>(pause).count());
        }
        std::unique_lock lock(SyncronizeMutex);
        SyncronizeCondition.wait_for(lock, pause, [&] { return !runIsCurrent(generation); });
        pause = std::min(pause * 2, kLongestRetryPause);
    }
}

void DCIFileManager::watchUntilStopped(uint64_t generation) {
    bool pending = false;  // file-system changes seen but not yet examined
    for (;;) {
        bool fsEvents = false;
        std::chrono::steady_clock::time_point latest;
        {
            std::unique_lock lock(SyncronizeMutex);
            if (!haveEvents_) {
                if (!pending) {
                    SyncronizeCondition.wait(lock, [this] { return haveEvents_; });
                    pending = haveFSEvents_;
                } else {
                    const auto quietUntil = latestFSEvent_ + kQuietPeriod;
                    SyncronizeCondition.wait_until(lock, quietUntil, [this] { return haveEvents_; });
                }
            }
            fsEvents = haveFSEvents_;
            haveFSEvents_ = haveEvents_ = false;
            latest = latestFSEvent_;
        }
        while (processNextFileEvent()) {}
        if (pending || fsEvents) {
            pending = std::chrono::steady_clock::now() - kQuietPeriod <= latest;
            if (!pending) lookForChanges();
        }
        if (auto cache = primaryFileCache()) cache->persist();
        if (auto cache = sampleCache()) cache->persist();
        if (!rootExists() && runIsCurrent(generation)) {
            DCLogInfo("The root folder has been removed");
            post(DCIEventTypeRootFolderRemoved);
            return;
        }
        if (!runIsCurrent(generation)) return;
    }
}
