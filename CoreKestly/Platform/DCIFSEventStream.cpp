#include "CoreKestly/Platform/DCIFSEventStream.h"

#include "CoreKestly/Platform/DCIFileDescriptor.h"
#include "CoreKestly/Platform/DCIRunLoop.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include <dirent.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK |
                                   IN_MASK_ADD;
// The parent is watched only for what happens to the root's own entry, and to the parent
// itself, whose removal or rename takes the root along.
constexpr uint32_t kParentEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF |
                                   IN_ONLYDIR | IN_MASK_ADD;

std::string kernelWatchLimit() {
    std::ifstream limit("/proc/sys/fs/inotify/max_user_watches");
    std::string value;
    return limit >> value ? value : "unknown";
}

bool isFolder(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The names of the sub-folders of `path`, links to folders included.
std::vector<std::string> subFolderNames(const std::string& path) {
    std::vector<std::string> names;
    DIR* directory = opendir(path.c_str());
    if (!directory) return names;
    while (const dirent* entry = readdir(directory)) {
        std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        bool folder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) folder = isFolder(path + "/" + entry->d_name);
        if (folder) names.emplace_back(name);
    }
    closedir(directory);
    return names;
}

// The folders below `root`, each directory once however many links lead to it; the count
// stops at `limit`, so that a huge tree costs a bounded walk for a log line.
size_t countFolders(const std::string& root, size_t limit) {
    std::set<std::pair<dev_t, ino_t>> seen;
    std::vector<std::string> pending{root};
    while (!pending.empty() && seen.size() < limit) {
        std::string path = std::move(pending.back());
        pending.pop_back();
        struct stat status;
        if (stat(path.c_str(), &status) != 0 || !seen.emplace(status.st_dev, status.st_ino).second) continue;
        for (const std::string& name : subFolderNames(path)) pending.push_back(KestlyPath::appendingComponent(path, name));
    }
    return seen.size();
}

}  // namespace

// Everything below runs on the stream's own thread once `start()` has handed over to it.
class KESTLY_HIDDEN DCIFSEventStream::Watcher {
public:
    Watcher(std::string path, Callback callback, ProblemHandler problemHandler, Options options)
        : root_(std::move(path)), callback_(std::move(callback)), problemHandler_(std::move(problemHandler)),
          options_(options) {}

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

    bool isFallingBack() const { return fallingBack_.load(); }

private:
    void run() {
        DCIRunLoop& loop = DCIRunLoop::current();
        announcer_ = DCIRunLoop::main().addSignalSource(callback_);
        inotify_.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!inotify_) {
            fallBack("cannot start inotify (" + std::string(std::strerror(errno)) +
                     "; the limit is fs.inotify.max_user_instances)");
        } else {
            inotifySource_ = loop.addFileDescriptorSource(inotify_.get(), EPOLLIN, [this](uint32_t) { readEvents(); });
            watchParent();
            addWatches(root_);
        }
        {
            std::lock_guard lock(readyMutex_);
            loop_.store(&loop);
        }
        readyCondition_.notify_one();
        loop.run();
        // Sources go before the descriptor they watch.
        fallbackTimer_.reset();
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

    // Watches `path` and every folder below it. Folders already watched are walked too, as
    // after an overflow new folders may hide below them; each directory is entered once per
    // walk, so links that loop end it.
    void addWatches(const std::string& path) {
        std::unordered_set<int> walked;
        std::vector<std::string> pending{path};
        while (!pending.empty() && !fallingBack_) {
            std::string folder = std::move(pending.back());
            pending.pop_back();
            if (pathByWatch_.size() >= options_.maximumWatches) {
                fallBackForWatchLimit("the stream's own limit of " + std::to_string(options_.maximumWatches));
                return;
            }
            const int watch = inotify_add_watch(inotify_.get(), folder.c_str(), kFolderEvents);
            if (watch < 0) {
                if (errno == ENOSPC) fallBackForWatchLimit("the limit fs.inotify.max_user_watches = " + kernelWatchLimit());
                else if (errno == ENOMEM) fallBackForWatchLimit("the kernel's memory for watches");
                continue;  // gone, not a folder or not readable: nothing to watch
            }
            if (!walked.insert(watch).second) continue;
            pathByWatch_.emplace(watch, folder);  // a folder reached through a link keeps its first path
            watchByPath_[folder] = watch;
            for (const std::string& name : subFolderNames(folder)) pending.push_back(KestlyPath::appendingComponent(folder, name));
        }
    }

    // Drops the watches of `path` and of everything below it. "/a/b 2" sorts between "/a/b" and
    // "/a/b/c", so the folders below are the range from "/a/b/" up to "/a/b0" ('0' follows '/').
    void removeWatchesUnder(const std::string& path) {
        auto removeRange = [&](auto first, auto last) {
            for (auto entry = first; entry != last;) {
                inotify_rm_watch(inotify_.get(), entry->second);
                pathByWatch_.erase(entry->second);
                entry = watchByPath_.erase(entry);
            }
        };
        const auto exact = watchByPath_.find(path);
        if (exact != watchByPath_.end()) removeRange(exact, std::next(exact));
        removeRange(watchByPath_.lower_bound(path + "/"), watchByPath_.lower_bound(path + "0"));
    }

    void forgetWatch(int watch) {
        auto entry = pathByWatch_.find(watch);
        if (entry == pathByWatch_.end()) return;
        auto byPath = watchByPath_.find(entry->second);
        if (byPath != watchByPath_.end() && byPath->second == watch) watchByPath_.erase(byPath);
        pathByWatch_.erase(entry);
    }

    void readEvents() {
        alignas(inotify_event) char buffer[64 * 1024];
        bool changed = false;
        for (;;) {
            const ssize_t length = read(inotify_.get(), buffer, sizeof buffer);
            if (length <= 0) break;
            for (ssize_t offset = 0; offset < length && !fallingBack_;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                changed |= handle(*event);
            }
            if (fallingBack_) return;
        }
        if (changed) noteChange();
    }

    // Keeps the watches in step with the folders; answers whether the event is a change to report.
    bool handle(const inotify_event& event) {
        if (event.mask & IN_Q_OVERFLOW) {
            // Folders made while events were lost have no watch yet.
            addWatches(root_);
            return true;
        }
        const std::string name = event.len ? event.name : "";
        auto watched = pathByWatch_.find(event.wd);
        if (watched == pathByWatch_.end()) {
            if (event.wd == parentWatch_) {
                if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) return true;
                if (name != rootName_) return false;
                if (event.mask & (IN_CREATE | IN_MOVED_TO)) addWatches(root_);
                return true;
            }
            if (!(event.mask & IN_IGNORED)) inotify_rm_watch(inotify_.get(), event.wd);  // a folder no longer below the root
            return false;
        }
        if (event.mask & IN_IGNORED) {
            forgetWatch(event.wd);
            return true;
        }
        if (name.empty()) return true;
        const std::string path = KestlyPath::appendingComponent(watched->second, name);
        if (event.mask & IN_MOVED_FROM && event.mask & IN_ISDIR) removeWatchesUnder(path);
        const bool appeared = event.mask & (IN_CREATE | IN_MOVED_TO);
        if (appeared && (event.mask & IN_ISDIR || isFolder(path))) addWatches(path);
        return true;
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
        announcer_->signal();
    }

    void fallBackForWatchLimit(const std::string& limit) {
        constexpr size_t kCountLimit = 1'000'000;
        const size_t folders = countFolders(root_, kCountLimit);
        fallBack("cannot watch the " + std::string(folders >= kCountLimit ? "more than " : "") + std::to_string(folders) +
                 " folders under " + root_ + ": " + limit + " is reached");
    }

    // Gives up inotify for good: the watches go back to the system, and a timer announces.
    void fallBack(const std::string& why) {
        fallingBack_ = true;
        inotifySource_.reset();
        inotify_.reset();
        pathByWatch_.clear();
        watchByPath_.clear();
        announcementTimer_.reset();
        const auto seconds = std::chrono::duration<double>(options_.fallbackInterval).count();
        char interval[32];
        std::snprintf(interval, sizeof interval, "%g", seconds);
        if (problemHandler_) problemHandler_("File changes: " + why + "; looking for changes every " + interval + " s instead");
        fallbackTimer_ = DCIRunLoop::current().addTimer(options_.fallbackInterval, true, [this] { announce(); });
    }

    const std::string root_;
    const Callback callback_;
    const ProblemHandler problemHandler_;
    const Options options_;

    std::thread thread_;
    std::atomic<DCIRunLoop*> loop_{nullptr};
    std::mutex readyMutex_;
    std::condition_variable readyCondition_;
    std::atomic<bool> fallingBack_{false};

    // The stream thread's own; declared so that each source goes before what it watches.
    std::unique_ptr<DCIRunLoopSource> announcer_;
    DCIFileDescriptor inotify_;
    std::unique_ptr<DCIRunLoopSource> inotifySource_;
    std::unique_ptr<DCIRunLoopSource> announcementTimer_;
    std::unique_ptr<DCIRunLoopSource> fallbackTimer_;
    DCIRunLoop::Clock::time_point lastAnnouncement_{};
    std::string rootName_;
    int parentWatch_ = -1;
    std::unordered_map<int, std::string> pathByWatch_;
    std::map<std::string, int> watchByPath_;
};

DCIFSEventStream::DCIFSEventStream(std::string path, Callback callback, ProblemHandler problemHandler, Options options)
    : watcher_(std::make_unique<Watcher>(std::move(path), std::move(callback), std::move(problemHandler), options)) {}

DCIFSEventStream::~DCIFSEventStream() = default;

void DCIFSEventStream::start() { watcher_->start(); }

bool DCIFSEventStream::isFallingBack() const { return watcher_->isFallingBack(); }
