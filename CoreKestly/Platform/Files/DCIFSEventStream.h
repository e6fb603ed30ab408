#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What changed below a stream's path since its previous announcement.
struct DCIFSEventBatch {
    /// The absolute paths of the folders whose entries changed, each once, in no set order: the
    /// folder holding an entry that was made, removed, written, renamed or moved in or out, or
    /// whose attributes changed; a folder whose own attributes changed or which was itself
    /// removed or moved; and each folder that appeared with a watch made for it, with the folders
    /// below it, since what they held before the watch went unseen. A folder reached through
    /// links is listed under every path it is known by, up to 64. The reader re-lists each one
    /// and looks again at its files; it goes below one only where it finds a sub-folder new to it.
    std::vector<std::string> folders;
    /// The stream cannot tell which folders changed (the kernel's queue overflowed, more folders
    /// changed than `maximumBatchFolders`, or inotify is unavailable): the reader looks at the
    /// whole tree. `folders` is then empty.
    bool everything = false;
    /// When the stream read the latest of these changes: the announcement may come up to a
    /// latency later, and a reader waiting for quiet counts from here.
    std::chrono::steady_clock::time_point latestChange{};
};

/// Tells, on the main run loop, which folders changed at or below one watched path. Built on
/// inotify, with a watch on every folder below the path (links to folders followed, as the
/// tree follows them, a link that leads back up the tree left alone), added as folders appear
/// and dropped as they go, and a watch on the path's parent for the path's own removal, rename
/// or return, which is reported as the path itself.
///
/// Timing: the first change after a quiet `latency` is announced at once; later ones are
/// gathered and announced `latency` after the previous announcement. Only changes after
/// `start()` are announced.
///
/// Limits: when a watch is refused (the user's `max_user_watches`, the kernel's memory, or the
/// stream's own `maximumWatches`), the stream keeps the watches it has, reports the problem
/// once, naming the limit, and polls the folders left without a watch every
/// `fallbackInterval`: each tick re-lists those whose change time moved, gives them watches
/// again as far as the limits now allow (folders that went may have freed some), and reports
/// every one of them, since a file written in place leaves its folder's time alone and only
/// the reader's look at the files finds it. When inotify itself is unavailable, every tick
/// reports everything. A folder that cannot be read has no watch; a change of its attributes
/// seen from its parent makes the stream try again, for it and the folders below it.
///
/// The stream reads inotify on a thread of its own, which sleeps while nothing happens.
class KESTLY_EXPORT DCIFSEventStream {
public:
    using Callback = std::function<void(DCIFSEventBatch)>;
    /// Told, on the stream's thread, why the stream polls some folders or all.
    using ProblemHandler = std::function<void(const std::string& message)>;

    struct Options {
        std::chrono::milliseconds latency{200};
        std::chrono::milliseconds fallbackInterval{2000};
        /// The most watches the stream adds; the kernel's limit applies too.
        size_t maximumWatches = static_cast<size_t>(-1);
        /// Past this many changed folders, a batch says `everything`, so that a burst across a
        /// huge tree holds bounded memory.
        size_t maximumBatchFolders = 10'000;
    };

    /// A stream for the absolute, standardised `path`; `callback` runs on the main run loop.
    DCIFSEventStream(std::string path, Callback callback, ProblemHandler problemHandler, Options options);
    /// Stops the stream: no callback starts after this returns.
    ~DCIFSEventStream();
    DCIFSEventStream(const DCIFSEventStream&) = delete;
    DCIFSEventStream& operator=(const DCIFSEventStream&) = delete;

    /// Adds the watches and starts announcing; returns once every folder present is watched or
    /// polled. Call once.
    void start();

    /// Whether the stream polls some folders, or all, instead of waiting for inotify's word.
    bool isFallingBack() const;

private:
    class KESTLY_HIDDEN Watcher;
    std::unique_ptr<Watcher> watcher_;
};
