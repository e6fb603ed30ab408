#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

/// Tells, on the main run loop, that something changed at or below one watched path. It says
/// nothing about what changed: its reader rescans. Built on inotify, with a watch on every
/// folder below the path (links to folders followed, as the tree follows them), added as
/// folders appear and dropped as they go, and a watch on the path's parent for the path's
/// own removal or rename.
///
/// Timing: the first change after a quiet `latency` is announced at once; later ones are
/// gathered and announced `latency` after the previous announcement. Only changes after
/// `start()` are announced. An overflow of the kernel's queue counts as a change.
///
/// When the kernel refuses inotify or a watch (the `fs.inotify.max_user_watches` limit,
/// `EMFILE`), or the stream's own `maximumWatches` is reached, the stream reports the problem
/// once and from then on announces a change every `fallbackInterval`, so that its reader's
/// rescans miss nothing.
///
/// The stream reads inotify on a thread of its own, which sleeps while nothing happens.
class KESTLY_EXPORT DCIFSEventStream {
public:
    using Callback = std::function<void()>;
    /// Told, on the stream's thread, why the stream fell back to periodic announcements.
    using ProblemHandler = std::function<void(const std::string& message)>;

    struct Options {
        std::chrono::milliseconds latency{200};
        std::chrono::milliseconds fallbackInterval{2000};
        /// The most watches the stream adds before it falls back; the kernel's limit applies too.
        size_t maximumWatches = static_cast<size_t>(-1);
    };

    /// A stream for the absolute, standardised `path`; `callback` runs on the main run loop.
    DCIFSEventStream(std::string path, Callback callback, ProblemHandler problemHandler, Options options);
    /// Stops the stream: no callback starts after this returns.
    ~DCIFSEventStream();
    DCIFSEventStream(const DCIFSEventStream&) = delete;
    DCIFSEventStream& operator=(const DCIFSEventStream&) = delete;

    /// Adds the watches and starts announcing; returns once every folder present is watched
    /// (or the stream has fallen back). Call once.
    void start();

    /// Whether the stream announces on a timer instead of on inotify's word.
    bool isFallingBack() const;

private:
    class KESTLY_HIDDEN Watcher;
    std::unique_ptr<Watcher> watcher_;
};
