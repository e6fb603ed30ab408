#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <filesystem>
#include <system_error>
#include <thread>

namespace {

std::mutex sharedInstanceMutex;
std::shared_ptr<DCIFileManager> sharedInstance;

}  // namespace

std::string DCIFileManager::absolutePath(const std::string& path) {
    std::string standardized = KestlyPath::standardize(path);
    if (standardized.starts_with('/')) return standardized;
    std::error_code error;
    const auto workingFolder = std::filesystem::current_path(error);
    return error ? standardized : KestlyPath::standardize(KestlyPath::appendingComponent(workingFolder.string(), standardized));
}

std::shared_ptr<DCIFileManager> DCIFileManager::sharedFileManager() {
    std::lock_guard lock(sharedInstanceMutex);
    if (!sharedInstance) sharedInstance = init();
    return sharedInstance;
}

void DCIFileManager::shutdown() {
    std::shared_ptr<DCIFileManager> dropped;
    {
        std::lock_guard lock(sharedInstanceMutex);
        dropped.swap(sharedInstance);
    }
    // A watcher left running would go on telling of a root that no instance answers for.
    if (dropped && dropped->started()) dropped->stop();
}

std::shared_ptr<DCIFileManager> DCIFileManager::init() {
    std::shared_ptr<DCIFileManager> manager(new DCIFileManager());
    manager->setSampleFinder(DCISampleFinder::initWithFileQueries(manager));
    return manager;
}

DCIFileManager::DCIFileManager()
    : fileActionQueue_(DCIActionQueue::init()),
      queries_(std::make_shared<DCICachedFileQueries>(DCIFileKinds{}, nullptr, nullptr)) {}

DCIFileManager::~DCIFileManager() = default;

// Classification ---------------------------------------------------------------------------

void DCIFileManager::updateQueries(const std::function<void(DCIFileKinds&)>& changeKinds) {
    std::lock_guard lock(kindsMutex_);
    const auto current = queries();
    DCIFileKinds kinds = current->kinds();
    changeKinds(kinds);
    queries_.store(std::make_shared<DCICachedFileQueries>(kinds, primaryFileCache(), sampleCache()));
}

void DCIFileManager::setCaches(std::shared_ptr<DCISHACache> primaryFileCache, std::shared_ptr<DCISHACache> sampleCache) {
    std::lock_guard lock(kindsMutex_);
    primaryFileCache_.store(primaryFileCache);
    sampleCache_.store(sampleCache);
    queries_.store(std::make_shared<DCICachedFileQueries>(queries()->kinds(), std::move(primaryFileCache),
                                                          std::move(sampleCache)));
}

void DCIFileManager::addPrimaryFileExtension(const std::string& extension) {
    updateQueries([&](DCIFileKinds& kinds) { kinds.primaryExtensions.push_back(extension); });
}

void DCIFileManager::addPrimaryFilename(const std::string& filename) {
    updateQueries([&](DCIFileKinds& kinds) { kinds.primaryFilenames.push_back(filename); });
}

void DCIFileManager::addSecondaryFileExtension(const std::string& extension) {
    updateQueries([&](DCIFileKinds& kinds) { kinds.secondaryExtensions.push_back(extension); });
}

std::vector<std::string> DCIFileManager::primaryFiles() const { return queries()->kinds().primaryExtensions; }
std::vector<std::string> DCIFileManager::primaryFilenames() const { return queries()->kinds().primaryFilenames; }
std::vector<std::string> DCIFileManager::secondaryFiles() const { return queries()->kinds().secondaryExtensions; }

bool DCIFileManager::isPrimaryFile(const std::string& path) const { return queries()->isPrimaryFile(path); }
bool DCIFileManager::isSecondaryFile(const std::string& path) const { return queries()->isSecondaryFile(path); }
bool DCIFileManager::isFileOfInterest(const std::string& path) { return queries()->isFileOfInterest(path); }

// Start, stop and signalling ---------------------------------------------------------------

void DCIFileManager::startWatchingRootFolder(const std::string& rootFolder, const std::string& primaryCachePath,
                                             const std::string& secondaryCachePath,
                                             DCISasIDCalculator sasIDCalculator) {
    if (started()) stop();
    uint64_t generation;
    {
        std::lock_guard lock(runStateMutex_);
        generation = ++generation_;
        started_ = true;
    }
    std::vector<std::thread> ended;  // earlier runs' threads, past their work once none is alive
    {
        std::lock_guard lock(runs_->mutex);
        if (runs_->alive == 0) ended.swap(runs_->threads);
        ++runs_->alive;
    }
    joinEnded(std::move(ended));
    try {
        std::thread thread([self = shared_from_this(), runs = runs_, root = absolutePath(rootFolder), generation,
                            primaryCachePath, secondaryCachePath, calculator = std::move(sasIDCalculator)]() mutable {
            self->threadMain(root, generation, primaryCachePath, secondaryCachePath, calculator);
            self.reset();
            runEnded(*runs);
        });
        std::lock_guard lock(runs_->mutex);
        runs_->threads.push_back(std::move(thread));
    } catch (const std::system_error& error) {
        DCLogError("The file manager could not start its thread: %s", error.what());
        {
            std::lock_guard lock(runStateMutex_);
            if (generation_.load() == generation) started_ = false;
        }
        runEnded(*runs_);
        DCIEventManager::postEvent(DCIEvent::commonEventWithType(DCIEventTypeFileManagerStopped));
    }
}

void DCIFileManager::stop() {
    DCLogError("Stop called on DCIFileManager");
    bool wasStarted;
    {
        std::lock_guard lock(runStateMutex_);
        wasStarted = started_.exchange(false);
    }
    if (!wasStarted) {
        DCIEventManager::postEvent(DCIEvent::commonEventWithType(DCIEventTypeFileManagerStopped));
        return;
    }
    // The tree stays until the watcher's teardown, which lets it go on its own thread: a large
    // tree takes a while to free, and `started` cleared first keeps the watcher from taking
    // the missing tree for a removed root.
    queries()->stopHashing();
    signalFileManagerThread(false);
}

void DCIFileManager::signalFileManagerThread(bool fromFSEvent) {
    // A notification that names no folder may concern any of them.
    DCIFSEventBatch everything;
    everything.everything = true;
    handOver(fromFSEvent ? &everything : nullptr);
}

void DCIFileManager::handOver(DCIFSEventBatch* changes) {
    {
        std::lock_guard lock(SyncronizeMutex);
        if (changes) {
            // The quiet period counts from the change, not from its announcement, which the
            // stream may hold back for its latency.
            const auto now = std::chrono::steady_clock::now();
            latestFSEvent_ = changes->latestChange == std::chrono::steady_clock::time_point{}
                                 ? now : std::min(now, std::max(latestFSEvent_, changes->latestChange));
            latestFSEventTime_ = DCIAbsoluteTimeGetCurrent();
            haveFSEvents_ = true;
            // Past a bound, the folders a burst touched are not worth their memory: the pass
            // looks at the whole tree.
            everythingChanged_ = everythingChanged_ || changes->everything ||
                                 changedFolders_.size() + changes->folders.size() > kMostChangedFolders;
            if (everythingChanged_) changedFolders_.clear();
            else changedFolders_.insert(changedFolders_.end(), std::make_move_iterator(changes->folders.begin()),
                                        std::make_move_iterator(changes->folders.end()));
        }
        haveEvents_ = true;
    }
    SyncronizeCondition.notify_all();
}

void DCIFileManager::setFSEventStreamOptions(const DCIFSEventStream::Options& options) {
    std::lock_guard lock(settingsMutex_);
    streamOptions_ = options;
}

// Queries ----------------------------------------------------------------------------------

std::optional<std::string> DCIFileManager::SHAForFileAtPath(const std::string& path) {
    const auto current = queries();
    if (current->isFileOfInterest(path)) return current->SHAForFileAtPath(path);
    DCLogInfo("Unexpected: DCIFileManager is creating hash for file %@.  It will not be cached.", DCILoggedText(path));
    return KSTSha256ForFileAtPath(path);
}

std::optional<std::string> DCIFileManager::SasIDForFileAtPath(const std::string& path) {
    const auto current = queries();
    if (current->isFileOfInterest(path)) return current->SasIDForFileAtPath(path);
    DCLogInfo("Unexpected: No SasID available for file %@.", DCILoggedText(path));
    return std::nullopt;
}

DCIFileIdentifiers DCIFileManager::identifiersForFileAtPath(const std::string& path) {
    const auto stamp = DCIFileStamp::ofFile(path);
    return stamp ? identifiersForFile(path, *stamp) : DCIFileIdentifiers{};
}

DCIFileIdentifiers DCIFileManager::identifiersForFile(const std::string& path, const DCIFileStamp& stamp) {
    // A stopped run's scan ends at once instead of asking after every remaining file.
    const uint64_t run = activeRun_.load();
    if (run != 0 && !runIsCurrent(run)) return {};
    if (knownUnhashable(path, stamp)) return {};
    auto identifiers = queries()->identifiersForFile(path, stamp);
    if (!identifiers.sha && (run == 0 || runIsCurrent(run))) rememberUnhashable(path, stamp);
    if (firstScanUnderWay_.load()) {
        ++scanFilesHashed_;
        scanBytesHashed_ += stamp.size;
        tellFirstScanProgress(run);
    }
    return identifiers;
}

bool DCIFileManager::knownUnhashable(const std::string& path, const DCIFileStamp& stamp) {
    std::lock_guard lock(unhashableMutex_);
    if (unhashable_.empty()) return false;
    const auto known = unhashable_.find(path);
    if (known == unhashable_.end()) return false;
    if (stamp == known->second) return true;
    unhashable_.erase(known);
    return false;
}

void DCIFileManager::rememberUnhashable(const std::string& path, const DCIFileStamp& stamp) {
    // A file that vanished meanwhile is no file to try again.
    if (DCIFileStamp::ofFile(path) != stamp) return;
    std::lock_guard lock(unhashableMutex_);
    unhashable_.insert_or_assign(path, stamp);
}

std::optional<std::string> DCIFileManager::pathForSampleWithName(const std::optional<std::string>& name,
                                                                 const std::optional<std::string>& sasID,
                                                                 const std::optional<std::string>& sha,
                                                                 uint64_t fileSize, uint64_t duration) {
    const auto finder = sharedFileManager()->sampleFinder();
    return finder ? finder->pathForSampleWithName(name, sasID, sha, fileSize, duration) : std::nullopt;
}

std::string DCIFileManager::description() const {
    const auto root = rootFolder();
    return "<DCIFileManager: " + (root ? root->absolutePath() : std::string("no root")) +
           (started() ? ", started>" : ", stopped>");
}
