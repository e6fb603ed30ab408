#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/Platform/RunLoop/DCIAtomicSharedPtr.h"
#include "CoreKestly/Platform/Files/DCIFSEventStream.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/SampleFinder/DCISampleFinder.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

class DCIAction;
class DCIActionQueue;
class DCIEvent;

/// The watcher of one project root folder. Started on a root, it builds and hashes the tree
/// of the folders and files of interest below it (through two SHA caches, so unchanged files
/// are never read again), posts `DCIEventTypeFileManagerReady`, and from then on tells the
/// host, through events delivered on the main thread, which folders and files were added,
/// removed, moved or modified. It also carries out moves, copies and new folders for the
/// host, at once or queued, keeping its tree in step so that they raise no change event.
///
/// A watcher thread does the work, one per run: it sleeps until the file-system event stream
/// (or a queued file operation, or `stop`) wakes it, carries out queued file operations at
/// once, and rescans the whole root once the disk has been quiet for 0.4 s after the latest
/// change, or at the latest 2 s after the first one of a stream of changes that never goes
/// quiet (a recording): a file still being written is then left as it was, and told once it
/// settles. A file that cannot be hashed (unreadable, a failing disk) is left out of the tree,
/// with one log line, until it changes; it never holds back the rest. It ends after `stop`, or when the root folder vanishes (`DCIEventTypeRootFolderRemoved`),
/// and posts `DCIEventTypeFileManagerStopped` as its last event. Each run ends before the
/// next begins: a restart never overlaps two runs, and a run's teardown never touches the
/// next run's caches.
///
/// The instance is also the `DCIFileQueries` of its trees: a tree keeps asking the instance
/// that built it, whatever becomes of the shared instance.
///
/// Threads: every operation may be called from any thread; events arrive on the main thread,
/// whose run loop the host must keep running. Nothing here blocks on the watcher's work.
class KESTLY_EXPORT DCIFileManager : public DCIObject,
                       public DCIFileQueries,
                       public std::enable_shared_from_this<DCIFileManager> {
public:
    /// How long the disk must be quiet after a change before the root is rescanned.
    static constexpr std::chrono::milliseconds kQuietPeriod{400};
    /// How long a stream of changes that never goes quiet may postpone a rescan.
    static constexpr std::chrono::milliseconds kLongestPostponement{2000};
    /// The priority every file action is queued with.
    static constexpr uint64_t kFileActionPriority = 100000;

    /// The process's shared instance, made on the first call (and the first after `shutdown`).
    /// Safe to call from several threads at once.
    static std::shared_ptr<DCIFileManager> sharedFileManager();
    /// Stops the shared instance when it is started (see `stop`), and drops it; its watcher
    /// keeps it alive until the run has ended.
    static void shutdown();
    /// A new, unconfigured instance, independent of the shared one.
    static std::shared_ptr<DCIFileManager> init();

    ~DCIFileManager() override;
    DCIFileManager(const DCIFileManager&) = delete;
    DCIFileManager& operator=(const DCIFileManager&) = delete;

    // Classification. The lists only grow; a change while watching applies from the next
    // scan on. Extensions are given without their dot; comparisons ignore ASCII case.

    void addPrimaryFileExtension(const std::string& extension);
    void addPrimaryFilename(const std::string& filename);
    void addSecondaryFileExtension(const std::string& extension);
    std::vector<std::string> primaryFiles() const;
    std::vector<std::string> primaryFilenames() const;
    std::vector<std::string> secondaryFiles() const;
    /// The path's extension is a primary one, or its last component a primary name.
    bool isPrimaryFile(const std::string& path) const;
    /// The path's extension is a secondary one.
    bool isSecondaryFile(const std::string& path) const;
    bool isFileOfInterest(const std::string& path) override;

    // Start and stop. Outcomes arrive as events: 1 (ready), 10 (root removed), 2 (stopped).

    /// Starts watching `rootFolder` (standardised, and absolute against the working folder) with a primary and a secondary cache
    /// at the two paths, both computing `sasID`s with `sasIDCalculator`. Stops a run in
    /// progress first; the new run begins once that one has ended. Returns at once: the
    /// caches are opened and the tree built on the watcher thread.
    void startWatchingRootFolder(const std::string& rootFolder, const std::string& primaryCachePath,
                                 const std::string& secondaryCachePath, DCISasIDCalculator sasIDCalculator);
    /// Asks the watcher to end: a hash in progress is cut short, a scan in progress is dropped
    /// and posts nothing, and the watcher's teardown lets the tree go (on its own thread) before
    /// it posts `DCIEventTypeFileManagerStopped`. A start that had not become ready posts no
    /// `DCIEventTypeFileManagerReady`. Once it has returned, the run posts nothing but the
    /// status changes of the file operations under way or still queued, which the teardown
    /// carries out, and `DCIEventTypeFileManagerStopped`. Logs "Stop called on DCIFileManager";
    /// when not started, posts `DCIEventTypeFileManagerStopped` at once.
    void stop();
    /// Blocks until the watcher thread of the run in progress, if any, has ended, its caches
    /// written: for a program about to exit after `DCIEventTypeFileManagerStopped`, when the
    /// wait is short.
    void waitUntilStopped();
    /// Started and not stopped; still set after the root vanished, until `stop`.
    bool started() const { return started_.load(); }

    /// The tree of the current root; none before the first scan and once the run has ended.
    /// A host may keep any file or folder object it was handed: the objects of one scan are
    /// never changed by later ones, which build objects of their own.
    std::shared_ptr<DCIFolderObject> rootFolder() const { return rootFolder_.load(); }
    std::shared_ptr<DCISHACache> primaryFileCache() const { return primaryFileCache_.load(); }
    std::shared_ptr<DCISHACache> sampleCache() const { return sampleCache_.load(); }
    std::shared_ptr<DCIActionQueue> fileActionQueue() const { return fileActionQueue_; }
    /// Asks this manager for the identifiers of its candidates. Each run points its folder
    /// scan at the root and the user's music folder; a host that wants other folders sets
    /// them once the run has started.
    std::shared_ptr<DCISampleFinder> sampleFinder() const { return sampleFinder_.load(); }
    void setSampleFinder(std::shared_ptr<DCISampleFinder> sampleFinder) { sampleFinder_.store(std::move(sampleFinder)); }
    /// When the latest file-system notification arrived, in seconds since 1 January 2001 UTC.
    double latestFSEventTime() const { return latestFSEventTime_.load(); }

    /// How far the first scan of the run under way has come: the files of interest it found
    /// and their bytes, and how many of them are hashed. All zero outside a first scan, and
    /// the totals zero until the tree is listed. Any thread. The same counts come in
    /// `DCIEventTypeFirstScanProgress` events: once the tree is listed (unless it has no file),
    /// then at most four times a second while files are hashed.
    struct ScanProgress {
        uint64_t files = 0, filesHashed = 0, bytes = 0, bytesHashed = 0;
    };
    ScanProgress firstScanProgress() const {
        return {scanFiles_.load(), scanFilesHashed_.load(), scanBytes_.load(), scanBytesHashed_.load()};
    }

    /// Wakes the watcher thread; `fromFSEvent` marks a file-system notification, which stamps
    /// `latestFSEventTime` and asks for a rescan once the disk is quiet.
    void signalFileManagerThread(bool fromFSEvent);

    /// How many threads hash the files a scan finds; one per core unless set. One thread keeps
    /// a first scan of a large library from taking every core.
    void setHashingThreads(unsigned threads) { hashingThreads_ = std::max(1u, threads); }
    /// Whether every pass scans the whole root, rather than the folders the event stream says
    /// changed: the same events at a cost that grows with the root. For tests and debugging.
    void setFullPasses(bool fullPasses) { fullPasses_ = fullPasses; }

    /// The settings of the file-system event streams of the runs started from now on.
    void setFSEventStreamOptions(const DCIFSEventStream::Options& options);

    // The current tree. Paths below the root, or relative to it; anything outside the root
    // (a sibling whose name merely begins with the root's included) answers none.

    std::shared_ptr<DCIFolderObject> folderWithPath(const std::string& path) const;
    std::shared_ptr<DCIFileObject> fileWithPath(const std::string& path) const;

    // File operations. Each makes an action of the common category with the paths in its
    // context (nothing when a path is missing or not absolute). A queued action is carried out
    // by the watcher thread and reports Pending, Running, then Completed or Failed (with the
    // error under kDCIError); queued while the manager is not started, it waits for the next
    // start. An unqueued one runs on the calling thread and answers success; it never waits
    // for a scan of the whole root, but it may wait for a pass hashing the files it found
    // changed, and it does the disk work itself (a large copy takes its time), so a host's
    // main thread should use the queued form. A successful operation puts into the tree the items
    // it made and takes out those it moved away, hashing only those, so the next rescan reports
    // nothing for it and still reports every other change.

    std::shared_ptr<DCIAction> moveItemAtPath(const std::optional<std::string>& path,
                                              const std::optional<std::string>& toPath, bool queued);
    std::shared_ptr<DCIAction> copyItemAtPath(const std::optional<std::string>& path,
                                              const std::optional<std::string>& toPath, bool queued);
    std::shared_ptr<DCIAction> createDirectoryAtPath(const std::optional<std::string>& path, bool queued);

    /// Queue the operation and wake the watcher (also when no action could be made).
    std::shared_ptr<DCIAction> queueMoveItemAtPath(const std::optional<std::string>& path,
                                                   const std::optional<std::string>& toPath);
    std::shared_ptr<DCIAction> queueCopyItemAtPath(const std::optional<std::string>& path,
                                                   const std::optional<std::string>& toPath);
    std::shared_ptr<DCIAction> queueCreateDirectoryAtPath(const std::optional<std::string>& path);

    bool unqueuedMoveItemAtPath(const std::optional<std::string>& path, const std::optional<std::string>& toPath);
    bool unqueuedCopyItemAtPath(const std::optional<std::string>& path, const std::optional<std::string>& toPath);
    /// Logs "Error creating directory : %@" with the error on failure.
    bool unqueuedCreateDirectoryAtPath(const std::optional<std::string>& path);

    /// Gives the action priority 100000 and adds it to `fileActionQueue` (status Pending).
    void enqueueFileAction(const std::shared_ptr<DCIAction>& action);
    /// Takes the next action from the queue and carries it out on the calling thread; none
    /// when the queue is empty or paused. An action of another type ends Failed.
    std::shared_ptr<DCIAction> processNextFileEvent();
    /// Moves (or copies) the item the action names. A move onto an existing item replaces it;
    /// across file systems it copies, then deletes the source. A copy makes the destination's
    /// folders first and never replaces an item. With `inBackground` the action ends Completed
    /// or Failed.
    bool processFileMoveAction(const std::shared_ptr<DCIAction>& action, bool inBackground, bool copying);
    /// Creates the folder the action names, with its missing parents; an existing folder is
    /// success. Fails, with no error, while the root folder is missing.
    bool processCreateDirectoryAction(const std::shared_ptr<DCIAction>& action, bool inBackground);
    /// Brings the tree's entry at `path` in line with the disk, and only it: an item there is
    /// (re)built and hashed, with the folders above it that the tree lacks; no item there
    /// takes the entry out. Nothing when not started.
    void updateRootFolderForItemAtPath(const std::string& path);

    // Queries, answered through the cache for the file's kind; nothing when that cache is
    // absent (before a run has opened it, or after it ended).

    /// A file of no interest is hashed directly, uncached, with an info line saying so.
    std::optional<std::string> SHAForFileAtPath(const std::string& path) override;
    std::optional<std::string> SasIDForFileAtPath(const std::string& path) override;
    DCIFileIdentifiers identifiersForFileAtPath(const std::string& path) override;
    DCIFileIdentifiers identifiersForFile(const std::string& path, const DCIFileStamp& stamp) override;
    /// True during a run's first scan: a start clears away what interrupted copies left.
    bool removesAbandonedStagingItems() override { return firstScanUnderWay_.load(); }

    /// The shared instance's `sampleFinder` asked for the sample: see
    /// `DCISampleFinder::pathForSampleWithName`. Never on the main thread.
    static std::optional<std::string> pathForSampleWithName(const std::optional<std::string>& name,
                                                            const std::optional<std::string>& sasID,
                                                            const std::optional<std::string>& sha, uint64_t fileSize,
                                                            uint64_t duration);

    std::string description() const override;

private:
    DCIFileManager();

    // Queries answered from the current lists and caches, replaced whole when either changes.
    std::shared_ptr<DCICachedFileQueries> queries() const { return queries_.load(); }
    void updateQueries(const std::function<void(DCIFileKinds&)>& changeKinds);
    void setCaches(std::shared_ptr<DCISHACache> primaryFileCache, std::shared_ptr<DCISHACache> sampleCache);

    // The watcher thread (DCIFileManagerWatcher.cpp).
    void threadMain(const std::string& rootPath, uint64_t generation, const std::string& primaryCachePath,
                    const std::string& secondaryCachePath, const DCISasIDCalculator& sasIDCalculator);
    bool runIsCurrent(uint64_t generation) const;
    struct Runs;
    static void runEnded(Runs& runs);
    // Joins watcher threads whose runs have ended; one that is the calling thread is detached.
    static void joinEnded(std::vector<std::thread> threads);
    void pointSampleFinderAt(const std::string& rootPath);
    /// `path` standardised, and made absolute against the working folder when relative.
    static std::string absolutePath(const std::string& path);
    /// Builds, hashes and installs the first tree and posts ready, after the event of a missing
    /// root; a run stopped meanwhile posts neither. Answers whether the run goes on to watch.
    bool buildFirstTree(uint64_t generation, const std::string& rootPath);
    using Events = std::vector<std::shared_ptr<DCIEvent>>;
    /// Posts the events while the run `generation` is current, and answers whether it was.
    /// Called with `runStateMutex_` held, which `stop` takes too: once it has returned, the
    /// run posts nothing more but its Stopped event.
    bool postWhileCurrent(uint64_t generation, const Events& events);
    /// Posts the first scan's progress of the run `generation`, unless one went less than
    /// `kScanProgressInterval` ago.
    void tellFirstScanProgress(uint64_t generation);
    static constexpr std::chrono::milliseconds kScanProgressInterval{250};
    void watchUntilStopped(uint64_t generation);
    /// Wakes the watcher with the stream's `changes`, or only wakes it for nullptr.
    void handOver(DCIFSEventBatch* changes);
    /// The folders the stream named since the last pass, and whether it named everything.
    DCIFSEventBatch takeChanges();
    bool rootExists() const;
    std::shared_ptr<DCIFolderObject> buildTree(const std::string& rootPath);
    /// Builds and hashes a tree of `rootPath` without holding the tree lock, then installs it
    /// with the file operations made meanwhile applied to it too. nullptr, with nothing
    /// installed, when the root is gone or the run `generation` has ended.
    std::shared_ptr<DCIFolderObject> scanAndInstall(const std::string& rootPath, uint64_t generation);
    /// Whether the file at `path` failed to hash and has not changed since; a file that has
    /// is forgotten as such.
    bool knownUnhashable(const std::string& path, const DCIFileStamp& stamp);
    void rememberUnhashable(const std::string& path, const DCIFileStamp& stamp);

    // Change detection (DCIFileManagerChanges.cpp).
    /// One pass over the folders that `changes` names, or over the whole tree. With
    /// `unsettledAfter`, a pass that could wait no longer for quiet: a file modified after that
    /// moment is still being written, and left as the old tree had it. True when it replaced
    /// the whole tree.
    bool lookForChanges(uint64_t generation, std::optional<DCIDate> unsettledAfter, const DCIFSEventBatch& changes);
    /// What a pass found, as a whole scan would: the files gone or changed (their old objects)
    /// and the files new or changed (their new ones), the topmost folders removed and added,
    /// in path order. Files present and unchanged in both trees may be in both sets or in neither.
    struct TreeChanges {
        DCIFileSet oldFiles, newFiles;
        std::vector<std::shared_ptr<DCIFolderObject>> removedFolders, addedFolders;
    };
    /// Lists the folders at `paths` again in the tree `root`, in place and under the tree lock,
    /// and tells what changed; false, with nothing changed, when only a whole scan can tell.
    bool relistChangedFolders(const std::shared_ptr<DCIFolderObject>& root, const std::vector<std::string>& paths,
                              TreeChanges& changes);
    /// The changes between two listings of one folder, and of the folders of the same name in them.
    static void compareListings(const DCIFileDictionary& oldFiles, const DCIFileDictionary& newFiles,
                                const DCIFolderDictionary& oldFolders, const DCIFolderDictionary& newFolders,
                                TreeChanges& changes);
    /// The events of `changes`, in order; keeps the caches to the files of the tree.
    Events reportChanges(TreeChanges changes, std::optional<DCIDate> unsettledAfter);
    /// A file of `newFiles` changed after `unsettledAfter` is still being written: it takes
    /// back its old hash, or leaves the new tree when it is new, so that it is told once settled.
    static void leaveUnsettledFilesAsTheyWere(DCIFileSet& newFiles, const DCIFileSet& oldFiles,
                                              const DCIDate& unsettledAfter);
    static DCIFolderSet folderSetFromSet(const DCIFolderSet& set, const DCIFolderSet& notInSet);
    static void compareNewFileSet(const DCIFileSet& newFiles, DCIFileSet& oldFiles, Events& told);
    /// Tells FileModified for each file of both sets (by path) whose hash changed.
    static void findModifiedFilesInNewSet(const DCIFileSet& newFiles, const DCIFileSet& oldFiles, Events& told);

    // File operations (DCIFileManagerOperations.cpp).
    /// An action of `type` with each path under its key; none when a path is missing or relative.
    std::shared_ptr<DCIAction> makeFileAction(
        uint64_t type, std::initializer_list<std::pair<std::string_view, std::optional<std::string>>> paths, bool queued);
    bool finishFileAction(const std::shared_ptr<DCIAction>& action, bool inBackground,
                          const std::optional<class DCIError>& error, const std::string& updatedPath);
    /// The tree after the item at `from` moved to `to`: their records move in the caches.
    void updateTreeForMove(const std::string& from, const std::string& to);
    /// `updateRootFolderForItemAtPath` on the tree `root`, under the tree lock; false when it
    /// left folders unlisted or met links to folders, which only a whole scan settles.
    static bool syncEntryAtPath(const std::shared_ptr<DCIFolderObject>& root, const std::string& path);

    std::atomic<bool> started_{false};
    std::atomic<uint64_t> generation_{0};  // of the latest start; a run whose number is older is over
    DCIAtomicSharedPtr<DCIFolderObject> rootFolder_;
    DCIAtomicSharedPtr<DCISHACache> primaryFileCache_;
    DCIAtomicSharedPtr<DCISHACache> sampleCache_;
    const std::shared_ptr<DCIActionQueue> fileActionQueue_;
    DCIAtomicSharedPtr<DCISampleFinder> sampleFinder_;
    std::atomic<double> latestFSEventTime_{0};
    std::atomic<bool> fullPasses_{false};
    std::atomic<bool> needsFullPass_{false};  // an operation left the tree short of what a scan would list
    std::atomic<unsigned> hashingThreads_{std::max(1u, std::thread::hardware_concurrency())};

    std::mutex kindsMutex_;  // serialises changes of the lists and caches behind `queries_`
    DCIAtomicSharedPtr<DCICachedFileQueries> queries_;

    std::mutex settingsMutex_;  // guards the two members below
    DCIFSEventStream::Options streamOptions_;
    std::vector<std::string> sampleFinderFoldersSetByRun_;

    // The hand-over to the watcher thread.
    std::mutex SyncronizeMutex;
    std::condition_variable SyncronizeCondition;
    bool haveEvents_ = false;    // guarded by SyncronizeMutex
    bool haveFSEvents_ = false;  // guarded by SyncronizeMutex
    static constexpr size_t kMostChangedFolders = 10'000;
    std::vector<std::string> changedFolders_;  // guarded by SyncronizeMutex; may repeat a folder
    bool everythingChanged_ = false;        // guarded by SyncronizeMutex
    std::chrono::steady_clock::time_point latestFSEvent_;  // guarded by SyncronizeMutex

    std::mutex runStateMutex_;  // makes starting, stopping, ending a run and each of its posts one step

    std::recursive_mutex treeLock_;  // a pass's relisting or new tree against an operation and its tree update
    // The entries file operations changed while a scan was under way, to apply to its tree
    // too; guarded by the tree lock.
    bool journaling_ = false;
    std::vector<std::string> journal_;

    std::mutex runLock_;                   // held by a watcher thread for its whole run
    std::atomic<uint64_t> activeRun_{0};   // the generation of the watcher thread's run, or 0
    std::atomic<bool> firstScanUnderWay_{false};
    std::atomic<uint64_t> scanFiles_{0}, scanFilesHashed_{0}, scanBytes_{0}, scanBytesHashed_{0};
    std::atomic<std::chrono::steady_clock::rep> scanProgressToldAt_{0};  // 0: not yet in this scan

    std::mutex unhashableMutex_;  // guards the member below
    std::unordered_map<std::string, DCIFileStamp> unhashable_;  // files that failed to hash, as they were

    // Watcher threads started and not yet ended, shared with each thread: a thread ends its
    // count only after letting go of the manager, so that a host that waits for it and then
    // exits never meets the manager's destruction on that thread. The threads are kept to be
    // joined by that wait, so that none is still tearing down its thread-local state as the
    // process exits; those left when the last owner goes are detached.
    struct Runs {
        std::mutex mutex;
        std::condition_variable ended;
        int alive = 0;
        std::vector<std::thread> threads;
        ~Runs() {
            for (auto& thread : threads) thread.detach();
        }
    };
    const std::shared_ptr<Runs> runs_ = std::make_shared<Runs>();
};
