#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Actions/DCIAction.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class DCIActionQueueHeap;

/// Told of a change of a queue's `paused()`: once just before it, with `isPrior` set and
/// `paused` still the old value, and once right after it, with the new value.
using DCIPausedObserver = std::function<void(bool isPrior, bool paused)>;

/// Told that an action was added to a queue, on the adding thread, after the queue's lock is
/// released. For takers that sleep while the queue is empty.
using DCIAdditionObserver = std::function<void()>;

/// Keeps one paused or addition observer registered for as long as it lives. It may outlive its queue.
/// Destroyed on another thread while its observer is being called, it waits for that call.
class KESTLY_EXPORT DCIPausedObservation {
public:
    ~DCIPausedObservation();
    DCIPausedObservation(const DCIPausedObservation&) = delete;
    DCIPausedObservation& operator=(const DCIPausedObservation&) = delete;

private:
    friend class DCIActionQueue;
    struct Registry;
    DCIPausedObservation(std::weak_ptr<Registry> registry, uint64_t identifier)
        : registry_(std::move(registry)), identifier_(identifier) {}

    std::weak_ptr<Registry> registry_;
    uint64_t identifier_;
};

/// Actions waiting to be carried out, handed out one at a time: the smallest priority value
/// first and, among equal values, the newest first. A waiting action whose priority changes
/// is handed out by its new priority from the next hand-out on, without being added again.
///
/// The queue owns each waiting action until it hands it out. A paused queue still accepts
/// actions but hands none out.
///
/// Threads: any thread may add and take; each action is handed out once. Adding holds the
/// queue's lock while it sets the action's status, so the lock order is queue first, action
/// second. Adding and hand-out cost O(log n); so does a priority change, in each queue the
/// action waits in, and nothing in the others.
class KESTLY_EXPORT DCIActionQueue {
public:
    /// An empty, running queue.
    static std::shared_ptr<DCIActionQueue> init();
    /// Releases the actions still waiting.
    ~DCIActionQueue();
    DCIActionQueue(const DCIActionQueue&) = delete;
    DCIActionQueue& operator=(const DCIActionQueue&) = delete;

    /// Queues `action` and sets it to `DCIActionStatusPending`, which announces the change
    /// unless it was pending already. An action already waiting here is not added again and
    /// keeps its status. Ignores nullptr; a paused queue accepts actions too. Out of memory,
    /// the action may stay out of the queue, keeping its status; adding it again is then
    /// possible.
    void addAction(const std::shared_ptr<DCIAction>& action);
    /// Removes and answers the next action, or nullptr when the queue is empty or paused.
    /// The status is left as it is: the taker moves it on.
    std::shared_ptr<DCIAction> popNextAction();

    /// Stops hand-out; observers hear of it only when the queue was running.
    void pause();
    /// Resumes hand-out; observers hear of it only when the queue was paused.
    void resume();
    bool paused() const { return !running(); }
    bool running() const { return running_.load(); }
    /// Changes the state without telling the observers.
    void setRunning(bool running) { running_.store(running); }

    /// Registers `observer` for changes of `paused()` for as long as the answer lives.
    /// Observers are called on the thread that pauses or resumes, one transition at a time;
    /// they may pause, resume and observe from the callback, but must not wait there for
    /// another thread that does.
    std::unique_ptr<DCIPausedObservation> addPausedObserver(DCIPausedObserver observer);
    /// Registers `observer` for every action really added (not one already waiting) for as
    /// long as the answer lives; the same rules as for paused observers apply.
    std::unique_ptr<DCIPausedObservation> addAdditionObserver(DCIAdditionObserver observer);

    /// The waiting actions in the order they would be handed out now: the next one first. (An
    /// array kept for taking from its end would hold them the other way round.) A copy: the
    /// queue may change as soon as it is made.
    std::vector<std::shared_ptr<DCIAction>> queue() const;

private:
    DCIActionQueue();

    void changePaused(bool paused);

    std::shared_ptr<DCIActionQueueHeap> heap_;  // shared with the places of its actions

    std::atomic<bool> running_{true};
    std::shared_ptr<DCIPausedObservation::Registry> pausedObservers_;
};
