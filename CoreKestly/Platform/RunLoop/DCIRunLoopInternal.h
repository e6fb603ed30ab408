#pragma once

#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

// Ownership: the loop object owns its state, and so does every source entry, so that a handle
// may outlive its loop (a thread's loop dies with the thread) and still signal or remove itself.
// While attached, an entry is also held by the state's registries; detaching it (its handle
// goes, a one-shot timer fires, the loop dies) drops that reference and breaks the cycle.

/// One source: what it watches and the callback it runs on the loop's thread.
struct DCIRunLoopSourceEntry {
    enum class Kind { signal, fileDescriptor, timer };
    /// Signal sources and timers ignore the argument; descriptor sources get epoll's events.
    using Callback = std::function<void(uint32_t)>;

    DCIRunLoopSourceEntry(std::shared_ptr<DCIRunLoopState> owner, Kind sourceKind, uint64_t sourceId, Callback work)
        : loop(std::move(owner)), kind(sourceKind), id(sourceId), callback(std::move(work)) {}

    const std::shared_ptr<DCIRunLoopState> loop;
    const Kind kind;
    /// Names the source in epoll's reports, which may still arrive after the source has gone.
    const uint64_t id;
    const Callback callback;

    /// Raised by `signal()`, lowered by the loop just before the callback runs. Only signal
    /// sources are scanned for it.
    std::atomic<bool> signalled{false};

    // Fixed at creation. `fileDescriptor` is the owner's; see `DCIRunLoopState::watch` for why
    // epoll is given a duplicate of it.
    int fileDescriptor = -1;
    DCIRunLoop::Clock::duration interval{};
    bool repeats = false;

    // Guarded by the loop's mutex.
    bool detached = false;
    /// The loop's own duplicate of `fileDescriptor`, registered with epoll; -1 once unwatched.
    int watchedDescriptor = -1;
    int runningCallbacks = 0;
    DCIRunLoop::Clock::time_point deadline;

    /// The loop's own thread only: the pass that last ran a descriptor source, so that a report
    /// an outer pass collected before a nested run handled the descriptor is not acted on twice.
    uint64_t lastPass = 0;
};

/// What a loop shares with its sources and with the threads that perform on it.
struct DCIRunLoopState {
    using Clock = DCIRunLoop::Clock;
    using Closure = DCIRunLoop::Closure;
    using Entry = DCIRunLoopSourceEntry;

    explicit DCIRunLoopState(pid_t ownerThread);
    ~DCIRunLoopState();
    DCIRunLoopState(const DCIRunLoopState&) = delete;
    DCIRunLoopState& operator=(const DCIRunLoopState&) = delete;

    bool isOwnerThread() const;
    /// Makes the loop's descriptor readable, so a waiting pass returns and scans for work. On
    /// the loop's own thread, inside a pass or while no host watches the descriptor, it only
    /// notes that the run must look again before it waits; the descriptor is made readable
    /// once the outermost run returns, if still needed.
    void wake();
    /// On the loop's own thread, outside any pass: makes the descriptor readable for a
    /// wake-up that `wake` only noted.
    void writePendingSelfWake();
    /// Queues a closure, to run within `latency` (none: at once).
    void enqueue(Closure closure, Clock::duration latency);
    /// Detaches every source and drops every queued closure; the loop object is going away.
    void close();

    /// Runs one pass, then more until the predicate (when given) holds, `stop()` or the
    /// deadline.
    bool runUntil(Clock::time_point deadline, const std::function<bool()>* predicate);
    /// Waits up to `timeoutMs` (-1: no limit) for work, then runs what is ready; a `stoppable`
    /// pass ends early when a stop is pending. Answers whether a callback ran, or nothing when
    /// the wait itself failed.
    std::optional<bool> runPass(int timeoutMs, bool stoppable);

    /// Detaches a source whose handle is going; off the loop's thread, waits out a running
    /// callback of it.
    void detach(Entry& entry);
    /// Points the timer descriptor at the earliest timer's deadline; called with the mutex held.
    void armTimerDescriptor();
    /// Called with the mutex held by a pass about to run the queued closures: those queued
    /// from now on need a wake-up of their own.
    void takeClosures();

    // Descriptor sources; called with the mutex held.

    /// Registers a duplicate of the entry's descriptor for `events`. Refuses a descriptor
    /// another source already watches; a source left on the same number by an owner who closed
    /// its descriptor is removed first.
    bool watch(Entry& entry, uint32_t events);
    /// Whether the owner's descriptor still names the file the entry watches: an owner that
    /// closed it (and perhaps reused the number) broke the remove-before-close rule.
    bool ownerStillHoldsWatchedFile(const Entry& entry) const;
    /// Removes a source whose owner closed its descriptor before removing it, and says so.
    void dropOrphan(Entry& entry);
    /// Ends the entry's epoll registration and closes the loop's duplicate.
    void unwatch(Entry& entry);

    // Fixed at creation; -1 when the system refused one.
    const pid_t ownerThread;
    const int epollFd;
    /// Counts wake-ups: performed closures, raised signals, stops.
    const int wakeFd;
    const int timerFd;
    /// Fires when closures queued with a latency must run.
    const int closuresTimerFd;

    std::atomic<bool> stopRequested{false};
    /// Whether `fileDescriptor()` was handed out, so that a host's loop may be what waits.
    std::atomic<bool> descriptorShared{false};

    std::mutex mutex;
    /// Told when a callback returns whose source has been detached meanwhile.
    std::condition_variable callbackReturned;
    std::atomic<uint64_t> nextSourceId;

    // Guarded by the mutex.
    bool closed = false;
    std::deque<Closure> closures;
    /// Whether the queued closures have a wake-up on its way; later ones need none.
    bool closuresWakeArmed = false;
    /// Whether `closuresTimerFd` is armed for the queued closures that may wait.
    bool closuresDeadlineArmed = false;
    std::vector<std::shared_ptr<Entry>> signalSources;
    std::vector<std::shared_ptr<Entry>> timers;
    std::unordered_map<uint64_t, std::shared_ptr<Entry>> fileDescriptorSources;

    // The loop's own thread only.
    uint64_t passCount = 0;
    /// Callbacks under way on the loop's thread; above zero, a run is nested in one of them.
    int callbacksRunning = 0;
    /// Passes under way on the loop's thread, nested ones included.
    int passDepth = 0;
    /// A wake-up the loop's own thread asked for and `wake` only noted, not yet written.
    bool selfWakePending = false;
};
