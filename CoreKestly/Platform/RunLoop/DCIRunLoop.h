#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

class DCIRunLoopSource;
// What a loop shares with its sources, and one source; both are the loop's own business.
struct DCIRunLoopState;
struct DCIRunLoopSourceEntry;

/// An event loop owned by one thread: closures performed from other threads, signalable
/// sources, file-descriptor sources and timers, all of whose callbacks run on that thread.
/// Built on epoll, an eventfd that wakes the loop and one timerfd for all its timers.
///
/// Every thread has at most one loop, made on first use by `current()`. `main()` is the loop
/// of the process's initial thread, where events are delivered; a host either runs it with
/// `run()` or watches `fileDescriptor()` in its own loop and calls `runOnce()` whenever that
/// descriptor becomes readable.
class KESTLY_EXPORT DCIRunLoop {
public:
    using Clock = std::chrono::steady_clock;
    using Closure = std::function<void()>;

    /// The loop of the process's initial thread. Any thread may ask for it and signal or
    /// perform on it; only the initial thread runs it. It is never destroyed, so threads may
    /// still use it while the process exits.
    static DCIRunLoop& main();
    /// The calling thread's loop, made on first use and destroyed when the thread ends.
    static DCIRunLoop& current();

    DCIRunLoop(const DCIRunLoop&) = delete;
    DCIRunLoop& operator=(const DCIRunLoop&) = delete;
    ~DCIRunLoop();

    // Running. Only the loop's own thread runs it (on another thread these calls return at
    // once); runs may nest (a callback may run the loop again, as a modal dialog does), and
    // `stop()` ends the innermost one. A nested run goes on with the work the outer pass had
    // not reached yet, and runs a source signalled again meanwhile inside its own callback.
    // Each run looks at least once for ready work, even past its deadline.

    /// Runs until `stop()`.
    void run();
    /// Runs until `stop()` or until the deadline has passed.
    void runUntil(Clock::time_point deadline);
    /// Runs until the predicate holds, `stop()` is called or the timeout has passed; the
    /// predicate is tested before each wait. Answers the predicate's last value.
    bool runUntil(const std::function<bool()>& predicate, Clock::duration timeout);
    /// Runs every callback that is ready now, without waiting. Answers whether any ran.
    bool runOnce();
    /// Makes the innermost `run` of this loop return once its current callback is done.
    /// Callable from any thread. When no run is in progress the next one returns at once;
    /// `runOnce()` is not a run here: it neither ends early nor consumes the stop.
    void stop();

    /// A descriptor that is readable while the loop has work ready, for hosts that run their
    /// own loop (GLib, Qt): add it there and call `runOnce()` when it fires.
    int fileDescriptor() const;
    /// Whether the calling thread is the one this loop belongs to.
    bool isCurrent() const;

    // Work from any thread.

    /// Queues the closure to run on the loop's thread, after the closures queued before it.
    void performAsync(Closure closure);
    /// As `performAsync`, but the loop may sleep up to `latency` before running it, so that
    /// closures posted close together, from any threads, run in one wake-up rather than one
    /// each. For news a person reads, not for work another thread waits on.
    void performAsync(Closure closure, Clock::duration latency);
    /// Runs the closure on the loop's thread and waits for it; runs it inline when called on
    /// that thread, so it cannot deadlock against itself. The loop must be running (or
    /// `runOnce()` called) for another thread's call to return.
    void performSync(const Closure& closure);

    // Sources. Each lives as long as its handle; destroying the handle, on any thread and even
    // from inside the source's own callback, removes it and no callback starts after that.
    // Destroyed on another thread while its callback runs, the handle waits for that callback
    // to return, so what the callback uses may go right after; that callback must therefore
    // never wait for the destroying thread. A handle may outlive its loop.

    /// A source that any thread may `signal()`; the callback runs on the loop's thread. Signals
    /// that arrive before the callback runs coalesce into one call.
    std::unique_ptr<DCIRunLoopSource> addSignalSource(Closure callback);
    /// Watches `fd` for the epoll `events` (EPOLLIN, EPOLLOUT...); the callback gets the
    /// events that occurred and, as readiness is level-triggered, is called again for as long
    /// as they last. The loop never closes `fd`. Answers nullptr when epoll refuses `fd`
    /// (invalid, or already watched by this loop).
    ///
    /// Destroy the source before closing `fd`. The loop watches a duplicate of its own, so a
    /// source removed late never disturbs a newer source that reuses the number, but until
    /// then it keeps the file open; a source whose `fd` is found closed or reused is removed
    /// at once, reported on standard error, and its callback never runs again.
    std::unique_ptr<DCIRunLoopSource> addFileDescriptorSource(int fd, uint32_t events,
                                                              std::function<void(uint32_t)> callback);
    /// Changes the events watched on a file-descriptor source.
    void modifyFileDescriptorSource(DCIRunLoopSource& source, uint32_t events);
    /// A timer that fires `interval` from now and, when `repeats`, every `interval` after;
    /// fires missed while the loop was busy are skipped, not caught up.
    std::unique_ptr<DCIRunLoopSource> addTimer(Clock::duration interval, bool repeats, Closure callback);

private:
    /// A loop belonging to the thread whose kernel thread id is `ownerThreadId`.
    explicit DCIRunLoop(int ownerThreadId);
    std::shared_ptr<DCIRunLoopState> state_;
};

/// The handle of a source added to a loop; destroying it removes the source.
class KESTLY_EXPORT DCIRunLoopSource {
public:
    DCIRunLoopSource(const DCIRunLoopSource&) = delete;
    DCIRunLoopSource& operator=(const DCIRunLoopSource&) = delete;
    ~DCIRunLoopSource();

    /// For a signal source: asks for the callback to run on the loop's thread. Any thread.
    void signal();

private:
    friend class DCIRunLoop;
    explicit DCIRunLoopSource(std::shared_ptr<DCIRunLoopSourceEntry> entry) : entry_(std::move(entry)) {}
    std::shared_ptr<DCIRunLoopSourceEntry> entry_;
};

/// Whether the calling thread is the process's initial thread.
KESTLY_EXPORT bool DCIIsMainThread();
