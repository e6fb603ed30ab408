// The watcher thread: one run of the file manager, from the first tree to the teardown.

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>

namespace {

void post(uint64_t type) { DCIEventManager::postEvent(DCIEvent::commonEventWithType(type)); }

// A scan of the whole root frees about as much as the tree holds (the tree it replaced, or
// the first scan's lists), scattered among the blocks still in use. glibc keeps such pages,
// so a watcher would otherwise stay at the size of two trees for good; handing them back
// walks every free block, which only whole scans are worth, not each pass over a few folders.
void returnFreedMemory() { malloc_trim(0); }

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

DCIFSEventBatch DCIFileManager::takeChanges() {
    std::lock_guard lock(SyncronizeMutex);
    DCIFSEventBatch changes;
    changes.everything = std::exchange(everythingChanged_, false);
    changes.folders.swap(changedFolders_);
    return changes;
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
    activeRun_ = generation;
    setCaches(DCISHACache::initWithCachePath(primaryCachePath, sasIDCalculator),
              DCISHACache::initWithCachePath(secondaryCachePath, sasIDCalculator));
    {
        std::lock_guard lock(unhashableMutex_);
        unhashable_.clear();  // a new run tries every file again
    }
    {
        // File actions queued while no run was going are carried out on the first turn.
        std::lock_guard lock(SyncronizeMutex);
        haveEvents_ = true;
        haveFSEvents_ = false;
        everythingChanged_ = false;
        changedFolders_.clear();
    }
    pointSampleFinderAt(rootPath);
    DCIFSEventStream::Options options;
    {
        std::lock_guard lock(settingsMutex_);
        options = streamOptions_;
    }
    // The stream starts before the first scan, so that changes made during it are noticed.
    auto stream = std::make_unique<DCIFSEventStream>(
        rootPath, [this](DCIFSEventBatch changes) { handOver(&changes); },
        [](const std::string& problem) { DCLogError("%@", problem); }, options);
    stream->start();

    if (buildFirstTree(generation, rootPath)) watchUntilStopped(generation);

    DCLogInfo("File manager loop completed");
    // The tree goes first, here rather than on the thread that called `stop`: the host finds
    // none once told the run stopped, and queued operations left over no longer touch it.
    rootFolder_.store(nullptr);
    while (processNextFileEvent()) {}
    stream.reset();
    setCaches(nullptr, nullptr);  // releasing a cache writes what it has not saved yet
    activeRun_ = 0;
    post(DCIEventTypeFileManagerStopped);
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

bool DCIFileManager::buildFirstTree(uint64_t generation, const std::string& rootPath) {
    // A file that cannot be hashed is left out of the tree, so one bad file never holds back
    // the start; only a missing root or a stop ends it without a tree.
    scanProgressToldAt_ = 0;
    firstScanUnderWay_ = true;
    const bool installed = scanAndInstall(rootPath, generation) != nullptr;
    firstScanUnderWay_ = false;
    if (installed) returnFreedMemory();
    scanFiles_ = scanFilesHashed_ = scanBytes_ = scanBytesHashed_ = 0;
    std::vector<std::shared_ptr<DCIEvent>> events;
    if (!installed) events.push_back(DCIEvent::commonEventWithType(DCIEventTypeRootFolderRemoved));
    // A start not stopped ends in ready, also when its root was missing.
    events.push_back(DCIEvent::commonEventWithType(DCIEventTypeFileManagerReady));
    std::lock_guard lock(runStateMutex_);
    if (!postWhileCurrent(generation, events)) return false;
    if (installed) {
        DCLogInfo("Posting \"We're ready\" from the file manager");
        return true;
    }
    DCLogInfo("The root folder has been removed while starting");
    started_ = false;
    return false;
}

bool DCIFileManager::postWhileCurrent(uint64_t generation, const std::vector<std::shared_ptr<DCIEvent>>& events) {
    if (!runIsCurrent(generation)) return false;
    for (const auto& event : events) DCIEventManager::postEvent(event);
    return true;
}

void DCIFileManager::tellFirstScanProgress(uint64_t generation) {
    // Hashing threads call this after every file: one claims each interval, the others leave.
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    auto toldAt = scanProgressToldAt_.load();
    const auto interval = std::chrono::duration_cast<std::chrono::steady_clock::duration>(kScanProgressInterval).count();
    if (toldAt != 0 && now - toldAt < interval) return;
    if (!scanProgressToldAt_.compare_exchange_strong(toldAt, now)) return;
    auto event = DCIEvent::commonEventWithType(DCIEventTypeFirstScanProgress);
    // Read under the lock, so that the counts of successive events never go back.
    std::lock_guard lock(runStateMutex_);
    const ScanProgress progress = firstScanProgress();
    event->setContext(DCIDictionary{{std::string(kDCIFileManagerScanFilesKey), DCIValue(progress.files)},
                                    {std::string(kDCIFileManagerScanFilesHashedKey), DCIValue(progress.filesHashed)},
                                    {std::string(kDCIFileManagerScanBytesKey), DCIValue(progress.bytes)},
                                    {std::string(kDCIFileManagerScanBytesHashedKey), DCIValue(progress.bytesHashed)}});
    postWhileCurrent(generation, {std::move(event)});
}

std::shared_ptr<DCIFolderObject> DCIFileManager::scanAndInstall(const std::string& rootPath, uint64_t generation) {
    {
        std::lock_guard lock(treeLock_);
        journaling_ = true;
    }
    auto tree = buildTree(rootPath);
    if (tree && firstScanUnderWay_.load()) {
        uint64_t bytes = 0;
        const DCIFileSet files = tree->gatherFiles();
        for (const auto& file : files) bytes += file->stamp().size;
        scanBytes_ = bytes;
        scanFiles_ = files.size();
        if (!files.empty()) tellFirstScanProgress(generation);
    }
    if (tree) tree->generateHashes(hashingThreads_.load());
    std::lock_guard lock(treeLock_);
    journaling_ = false;
    const auto journal = std::move(journal_);
    journal_.clear();
    if (!tree || !tree->exists() || !runIsCurrent(generation)) return nullptr;
    // An operation that ran during the scan changed the tree being replaced; the scan may
    // have seen its folder before or after it, so the same change is made to the new tree.
    for (const auto& path : journal) {
        if (!syncEntryAtPath(tree, path)) needsFullPass_ = true;
    }
    rootFolder_.store(tree);
    return tree;
}

void DCIFileManager::watchUntilStopped(uint64_t generation) {
    bool pending = false;  // file-system changes seen but not yet examined
    std::chrono::steady_clock::time_point pendingSince;  // the first of them
    for (;;) {
        bool fsEvents = false;
        std::chrono::steady_clock::time_point latest;
        {
            std::unique_lock lock(SyncronizeMutex);
            if (!haveEvents_) {
                if (!pending) {
                    SyncronizeCondition.wait(lock, [this] { return haveEvents_; });
                    pending = haveFSEvents_;
                    pendingSince = latestFSEvent_;
                } else {
                    const auto quietUntil = std::min(latestFSEvent_ + kQuietPeriod, pendingSince + kLongestPostponement);
                    SyncronizeCondition.wait_until(lock, quietUntil, [this] { return haveEvents_; });
                }
            }
            fsEvents = haveFSEvents_;
            haveFSEvents_ = haveEvents_ = false;
            latest = latestFSEvent_;
        }
        while (processNextFileEvent()) {}
        if (!runIsCurrent(generation)) return;  // a pass now would be dropped, and only delay the teardown
        if (fsEvents && !pending) {
            pending = true;
            pendingSince = latest;
        }
        if (pending) {
            const auto now = std::chrono::steady_clock::now();
            if (now - kQuietPeriod > latest) {
                if (lookForChanges(generation, std::nullopt, takeChanges())) returnFreedMemory();
                pending = false;
            } else if (now - pendingSince >= kLongestPostponement) {
                // Changes that never go quiet must not hide every other change: what is still
                // being written waits, the rest is told now.
                const double quiet = std::chrono::duration<double>(kQuietPeriod).count();
                const auto unsettledAfter = DCIDate::dateWithTimeIntervalSince1970(DCIDate::now().timeIntervalSince1970() - quiet);
                if (lookForChanges(generation, unsettledAfter, takeChanges())) returnFreedMemory();
                pendingSince = now;
            }
        }
        if (auto cache = primaryFileCache()) cache->persist();
        if (auto cache = sampleCache()) cache->persist();
        if (!rootExists()) {
            std::lock_guard lock(runStateMutex_);
            if (postWhileCurrent(generation, {DCIEvent::commonEventWithType(DCIEventTypeRootFolderRemoved)})) {
                DCLogInfo("The root folder has been removed");
                return;
            }
        }
        if (!runIsCurrent(generation)) return;
    }
}
