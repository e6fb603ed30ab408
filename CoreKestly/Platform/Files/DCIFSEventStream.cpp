#include "CoreKestly/Platform/Files/DCIFSEventStream.h"

#include "CoreKestly/Platform/Files/DCIFSFolderTableInternal.h"
#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using Identity = DCIFSFolderTable::Identity;
using Folder = DCIFSFolderTable::Folder;

constexpr uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK |
                                   IN_MASK_ADD;
// The parent is watched only for what happens to the root's own entry (its attributes too, for a
// root that was unreadable), and to the parent itself, whose removal or rename takes the root along.
constexpr uint32_t kParentEvents = IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF |
                                   IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;

// What `addWatch` answers instead of a watch.
constexpr int kRefusedByLimit = -1;
constexpr int kUnwatchable = -2;

std::optional<struct stat> folderStatus(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return status;
}

bool sameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

// The names of the sub-folders of `path`, links to folders included.
std::vector<std::string> subFolderNames(const std::string& path) {
    std::vector<std::string> names;
    DIR* directory = opendir(path.c_str());
    if (!directory) return names;
    while (const dirent* entry = readdir(directory)) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        bool folder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            folder = folderStatus(path + "/" + entry->d_name).has_value();
        }
        if (folder) names.emplace_back(name);
    }
    closedir(directory);
    return names;
}

std::string inotifyStartFailure(int error) {
    switch (error) {
        case EMFILE:
            return "the user's limit on inotify instances (max_user_instances) or the process's limit on open files "
                   "is reached";
        case ENFILE: return "the system's limit on open files is reached";
        default: return std::strerror(error);
    }
}

// The folders that changed since the last announcement; past `cap` of them, everything.
class Gathering {
public:
    explicit Gathering(size_t cap) : cap_(cap) {}

    void add(const std::string& folder) {
        if (everything_) return;
        folders_.insert(folder);
        if (folders_.size() > cap_) addEverything();
    }
    void addEverything() {
        everything_ = true;
        folders_ = {};
    }
    void add(Gathering&& other) {
        if (other.everything_) addEverything();
        if (!everything_) folders_.merge(other.folders_);
        if (folders_.size() > cap_) addEverything();
        latestChange_ = std::max(latestChange_, other.latestChange_);
        other = Gathering(cap_);
    }
    void stamp(std::chrono::steady_clock::time_point now) { latestChange_ = now; }

    bool empty() const { return !everything_ && folders_.empty(); }

    DCIFSEventBatch take() {
        DCIFSEventBatch batch{{folders_.begin(), folders_.end()}, everything_, latestChange_};
        *this = Gathering(cap_);
        return batch;
    }

private:
    size_t cap_;
    std::unordered_set<std::string> folders_;
    bool everything_ = false;
    std::chrono::steady_clock::time_point latestChange_{};
};

}  // namespace

// Everything below runs on the stream's own thread once `start()` has handed over to it, but
// for `deliver`, which runs on the main loop and shares only `handedOver_`.
class KESTLY_HIDDEN DCIFSEventStream::Watcher {
public:
    Watcher(std::string path, Callback callback, ProblemHandler problemHandler, Options options)
        : root_(std::move(path)), callback_(std::move(callback)), problemHandler_(std::move(problemHandler)),
          options_(options), handedOver_(options.maximumBatchFolders), gathering_(options.maximumBatchFolders) {}

    ~Watcher() {
        if (!thread_.joinable()) return;
        loop_.load()->stop();
        thread_.join();
    }

    void start() {
        thread_ = std::thread([this] { run(); });
        std::unique_lock lock(readyMutex_);
        readyCondition_.wait(lock, [this] { return loop_.load() != nullptr; });
    }

    bool isFallingBack() const { return polling_.load(); }

private:
    enum class Report { nothing, everyFolder };

    void run() {
        DCIRunLoop& loop = DCIRunLoop::current();
        announcer_ = DCIRunLoop::main().addSignalSource([this] { deliver(); });
        inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!inotify_) {
            problem_ = inotifyStartFailure(errno);
        } else {
            inotifySource_ = loop.addFileDescriptorSource(inotify_.get(), EPOLLIN, [this](uint32_t) { readEvents(); });
            watchParent();
            watchTree(root_, Report::nothing);
        }
        settle();
        {
            std::lock_guard lock(readyMutex_);
            loop_.store(&loop);
        }
        readyCondition_.notify_one();
        loop.run();
        // Sources go before the descriptor they watch.
        pollTimer_.reset();
        announcementTimer_.reset();
        inotifySource_.reset();
        inotify_.reset();
        announcer_.reset();
    }

    void watchParent() {
        const std::string parent = KestlyPath::deletingLastComponent(root_);
        if (parent.empty() || parent == root_) return;
        rootName_ = KestlyPath::lastComponent(root_);
        parentWatch_ = inotify_add_watch(inotify_.get(), parent.c_str(), kParentEvents);
    }

    // Records `top` and every folder below it, each path once, with a watch each or, where a
    // limit refuses one, polled. Folders already known are walked too, as after an overflow new
    // folders may hide below them.
    void watchTree(const std::string& top, Report report) {
        std::vector<std::string> pending{top};
        while (!pending.empty()) {
            std::string folder = std::move(pending.back());
            pending.pop_back();
            if (!addFolder(folder)) continue;
            if (report == Report::everyFolder) gathering_.add(folder);
            for (const std::string& name : subFolderNames(folder)) {
                pending.push_back(KestlyPath::appendingComponent(folder, name));
            }
        }
    }

    // Answers whether `path` is now known, and so worth walking below.
    bool addFolder(const std::string& path) {
        const auto status = folderStatus(path);
        if (!status) return false;
        const Identity identity = Identity::of(*status);
        if (const Folder* there = folders_.at(path); there && there->identity != identity) forget(path);
        if (!folders_.admits(path, identity)) return false;
        if (const Folder* known = folders_.find(identity); known && known->watch >= 0) {
            folders_.add(path, identity);
            return true;
        }
        const int watch = addWatch(path);
        if (watch == kUnwatchable) return false;  // gone, or not readable: an IN_ATTRIB may bring it back
        Folder& folder = folders_.add(path, identity);
        folder.changed = status->st_ctim;
        if (watch >= 0) folders_.setWatch(folder, watch);
        return true;
    }

    // A new watch on `path`, or why there is none.
    int addWatch(const std::string& path) {
        if (folders_.watchCount() >= options_.maximumWatches) {
            return refuse("the stream's own limit of " + std::to_string(options_.maximumWatches) +
                          " watches (maximumWatches) is reached");
        }
        const int watch = inotify_add_watch(inotify_.get(), path.c_str(), kFolderEvents);
        if (watch >= 0) return watch;
        switch (errno) {
            case ENOSPC:
                return refuse("the user's limit on inotify watches (max_user_watches, or max_inotify_watches in a "
                              "user namespace) is reached, " +
                              std::to_string(watchesHeld()) + " of them held by this stream");
            case ENOMEM: return refuse("the kernel has no memory for more inotify watches");
            default: return kUnwatchable;
        }
    }

    size_t watchesHeld() const { return folders_.watchCount() + (parentWatch_ >= 0 ? 1 : 0); }

    int refuse(const std::string& limit) {
        if (problem_.empty()) problem_ = limit;
        return kRefusedByLimit;
    }

    // Forgets `path` and what lies below it; watches left with no path go at the end of the
    // turn, by when the same folders may have been found again under new paths.
    void forget(const std::string& path) {
        for (int watch : folders_.forgetUnder(path)) orphanedWatches_.push_back(watch);
    }

    void removeOrphanedWatches() {
        for (int watch : orphanedWatches_) {
            if (watch != parentWatch_ && !folders_.watchedBy(watch)) inotify_rm_watch(inotify_.get(), watch);
        }
        orphanedWatches_.clear();
    }

    void readEvents() {
        alignas(inotify_event) char buffer[64 * 1024];
        for (;;) {
            const ssize_t length = read(inotify_.get(), buffer, sizeof buffer);
            if (length <= 0) break;
            for (ssize_t offset = 0; offset < length;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                handle(*event);
            }
        }
        settle();
    }

    void handle(const inotify_event& event) {
        if (event.mask & IN_Q_OVERFLOW) {
            // Events were lost: the reader looks everywhere, and folders made meanwhile get watches.
            gathering_.addEverything();
            watchTree(root_, Report::nothing);
            return;
        }
        if (event.wd == parentWatch_) handleParentEvent(event);
        const Folder* folder = folders_.watchedBy(event.wd);
        if (!folder) {
            // A folder no longer below the root.
            if (event.wd != parentWatch_ && !(event.mask & IN_IGNORED)) inotify_rm_watch(inotify_.get(), event.wd);
            return;
        }
        // Copied, as what follows changes the table.
        const std::vector<std::string> paths(folder->paths.begin(), folder->paths.end());
        if (event.mask & IN_IGNORED) {
            for (const std::string& path : paths) forget(path);
            return;
        }
        for (const std::string& path : paths) gathering_.add(path);
        if (event.len == 0) return;
        for (const std::string& path : paths) handleEntry(KestlyPath::appendingComponent(path, event.name), event.mask);
    }

    // Keeps the table in step with what happened to the entry `path`.
    void handleEntry(const std::string& path, uint32_t mask) {
        const bool appeared = mask & (IN_CREATE | IN_MOVED_TO);
        if (appeared || mask & (IN_DELETE | IN_MOVED_FROM)) forget(path);  // gone, or replaced
        const bool mayHaveBecomeReadable = mask & IN_ATTRIB && mask & IN_ISDIR && !folders_.at(path);
        if (appeared || mayHaveBecomeReadable) watchTree(path, Report::everyFolder);
    }

    void handleParentEvent(const inotify_event& event) {
        if (event.mask & IN_IGNORED) {
            parentWatch_ = -1;
            return;
        }
        const bool parentWent = event.mask & (IN_DELETE_SELF | IN_MOVE_SELF);
        if (!parentWent && (event.len == 0 || event.name != rootName_)) return;
        gathering_.add(root_);
        if (!parentWent) handleEntry(root_, event.mask);
    }

    // Gives polled folders watches while the limits allow, then looks at each: those whose change
    // time moved are re-listed, and every one is reported.
    void poll() {
        if (!inotify_) {
            gathering_.addEverything();
        } else {
            const std::vector<std::string> paths = folders_.polledPaths();
            for (const Identity& identity : folders_.polledFolders()) {
                Folder& folder = *folders_.find(identity);
                const int watch = addWatch(*folder.paths.begin());
                if (watch == kRefusedByLimit) break;
                if (watch >= 0) folders_.setWatch(folder, watch);
            }
            for (const std::string& path : paths) {
                gathering_.add(path);
                lookAgain(path);
            }
        }
        settle();
    }

    void lookAgain(const std::string& path) {
        Folder* folder = folders_.at(path);
        if (!folder) return;  // forgotten with a folder above it
        const auto status = folderStatus(path);
        if (!status || Identity::of(*status) != folder->identity) {
            forget(path);  // its parent, watched or polled, tells of what replaced it
            return;
        }
        if (sameTime(status->st_ctim, folder->changed)) return;
        folder->changed = status->st_ctim;
        const std::vector<std::string> names = subFolderNames(path);
        const std::unordered_set<std::string> present(names.begin(), names.end());
        for (const std::string& child : folders_.childPaths(path)) {
            if (!present.contains(KestlyPath::lastComponent(child))) forget(child);
        }
        for (const std::string& name : names) {
            const std::string child = KestlyPath::appendingComponent(path, name);
            if (!folders_.at(child)) watchTree(child, Report::everyFolder);
        }
    }

    // Ends each turn of the stream's loop: gives back the watches no path needs, reports a
    // problem the first time there is one, polls while some folders lack a watch, and
    // announces what was gathered.
    void settle() {
        if (inotify_) removeOrphanedWatches();
        if (!problem_.empty() && !problemReported_) {
            problemReported_ = true;
            if (problemHandler_) problemHandler_(problemText());
        }
        const bool polling = !inotify_ || folders_.polledCount() > 0;
        polling_ = polling;
        if (polling != static_cast<bool>(pollTimer_)) {
            pollTimer_ = polling ? DCIRunLoop::current().addTimer(options_.fallbackInterval, true, [this] { poll(); })
                                 : nullptr;
        }
        if (gathering_.empty()) return;
        gathering_.stamp(DCIRunLoop::Clock::now());
        noteChange();
    }

    std::string problemText() const {
        char interval[32];
        const double seconds = std::chrono::duration<double>(options_.fallbackInterval).count();
        std::snprintf(interval, sizeof interval, "%g", seconds);
        if (!inotify_) {
            return "File changes: cannot start inotify: " + problem_ + "; looking for changes everywhere every " +
                   interval + " s instead";
        }
        return "File changes: cannot watch the " + std::to_string(folders_.folderCount()) + " folders under " + root_ +
               ": " + problem_ + "; looking every " + interval + " s for changes in the " +
               std::to_string(folders_.polledCount()) + " left without a watch";
    }

    // The first change after a quiet spell is announced at once, later ones a latency apart.
    void noteChange() {
        if (announcementTimer_) return;
        const auto now = DCIRunLoop::Clock::now();
        const auto nextAllowed = lastAnnouncement_ + options_.latency;
        if (now >= nextAllowed) {
            announce();
            return;
        }
        announcementTimer_ = DCIRunLoop::current().addTimer(nextAllowed - now, false, [this] {
            announcementTimer_.reset();
            announce();
        });
    }

    void announce() {
        lastAnnouncement_ = DCIRunLoop::Clock::now();
        {
            std::lock_guard lock(handOverMutex_);
            handedOver_.add(std::move(gathering_));
        }
        announcer_->signal();
    }

    // On the main loop.
    void deliver() {
        DCIFSEventBatch batch;
        {
            std::lock_guard lock(handOverMutex_);
            if (handedOver_.empty()) return;
            batch = handedOver_.take();
        }
        callback_(std::move(batch));
    }

    const std::string root_;
    const Callback callback_;
    const ProblemHandler problemHandler_;
    const Options options_;

    std::thread thread_;
    std::atomic<DCIRunLoop*> loop_{nullptr};
    std::mutex readyMutex_;
    std::condition_variable readyCondition_;
    std::atomic<bool> polling_{false};
    std::mutex handOverMutex_;
    Gathering handedOver_;  // guarded by handOverMutex_

    // The stream thread's own; declared so that each source goes before what it watches.
    std::unique_ptr<DCIRunLoopSource> announcer_;
    DCIFileDescriptor inotify_;
    std::unique_ptr<DCIRunLoopSource> inotifySource_;
    std::unique_ptr<DCIRunLoopSource> announcementTimer_;
    std::unique_ptr<DCIRunLoopSource> pollTimer_;
    DCIRunLoop::Clock::time_point lastAnnouncement_{};
    std::string rootName_;
    int parentWatch_ = -1;
    DCIFSFolderTable folders_;
    std::vector<int> orphanedWatches_;
    Gathering gathering_;
    std::string problem_;  // the first limit hit, or why inotify is unavailable
    bool problemReported_ = false;
};

DCIFSEventStream::DCIFSEventStream(std::string path, Callback callback, ProblemHandler problemHandler, Options options)
    : watcher_(std::make_unique<Watcher>(std::move(path), std::move(callback), std::move(problemHandler), options)) {}

DCIFSEventStream::~DCIFSEventStream() = default;

void DCIFSEventStream::start() { watcher_->start(); }

bool DCIFSEventStream::isFallingBack() const { return watcher_->isFallingBack(); }
