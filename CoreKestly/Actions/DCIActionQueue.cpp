#include "CoreKestly/Actions/DCIActionQueue.h"

#include "CoreKestly/Actions/DCIActionQueuePlace.h"

#include <algorithm>
#include <map>
#include <new>

/// The paused and addition observers of one queue. Its lock also serialises pause and resume, so each real
/// transition is announced exactly once however many threads race; it is recursive so that an
/// observer may pause, resume or (un)register from its callback.
struct DCIPausedObservation::Registry {
    std::recursive_mutex mutex;
    std::map<uint64_t, DCIPausedObserver> observers;
    std::map<uint64_t, DCIAdditionObserver> additionObservers;
    uint64_t nextIdentifier = 0;

    // Called with `mutex` held. Each observer is looked up again before its call, since an
    // earlier one may have removed it, and called through a copy, since it may remove itself.
    template <class Observers, class... Arguments>
    static void notify(Observers& registered, Arguments... arguments) {
        std::vector<uint64_t> identifiers;
        for (const auto& [identifier, observer] : registered) identifiers.push_back(identifier);
        for (const uint64_t identifier : identifiers) {
            const auto found = registered.find(identifier);
            if (found == registered.end()) continue;
            const auto observer = found->second;
            observer(arguments...);
        }
    }

    uint64_t add(auto& registered, auto observer) {
        registered.emplace(nextIdentifier, std::move(observer));
        return nextIdentifier++;
    }
};

DCIPausedObservation::~DCIPausedObservation() {
    const auto registry = registry_.lock();
    if (!registry) return;
    std::lock_guard lock(registry->mutex);
    registry->observers.erase(identifier_);
    registry->additionObservers.erase(identifier_);
}

/// The waiting actions of one queue: a binary heap, next on top, each action knowing its
/// position through its place, so that a priority change moves it by O(log n) swaps.
class DCIActionQueueHeap {
public:
    /// A waiting action with the keys it is ordered by, copied so that ordering never reads a
    /// priority that another thread is changing.
    struct Entry {
        uint64_t priority;
        DCIDate::Clock::time_point created;
        uint64_t creationSequence;
        std::shared_ptr<DCIAction> action;
        std::shared_ptr<DCIActionQueuePlace> place;
    };

    static bool isHandedOutAfter(const Entry& a, const Entry& b) {
        if (a.priority != b.priority) return a.priority > b.priority;
        // Newest first. Timestamps decide wherever they differ, as `compareTo` does; the
        // creation sequence orders equal ones, which keeps the ordering strict.
        if (a.created != b.created) return a.created < b.created;
        return a.creationSequence < b.creationSequence;
    }

    // The members below are called with `mutex` held.

    void push(Entry entry) {
        entries.push_back(std::move(entry));
        siftUp(entries.size() - 1);
    }

    Entry popTop() {
        Entry top = std::move(entries.front());
        top.place->position = DCIActionQueuePlace::kLeft;
        Entry last = std::move(entries.back());
        entries.pop_back();
        if (!entries.empty()) {
            put(0, std::move(last));
            siftDown(0);
        }
        return top;
    }

    void followPriority(size_t position) {
        Entry& entry = entries[position];
        const uint64_t priority = entry.action->priority();
        if (priority == entry.priority) return;
        entry.priority = priority;
        siftDown(siftUp(position));
    }

    std::mutex mutex;
    std::vector<Entry> entries;

private:
    void put(size_t position, Entry entry) {
        entry.place->position = position;
        entries[position] = std::move(entry);
    }

    size_t siftUp(size_t position) {
        Entry moving = std::move(entries[position]);
        while (position > 0) {
            const size_t parent = (position - 1) / 2;
            if (!isHandedOutAfter(entries[parent], moving)) break;
            put(position, std::move(entries[parent]));
            position = parent;
        }
        put(position, std::move(moving));
        return position;
    }

    void siftDown(size_t position) {
        Entry moving = std::move(entries[position]);
        for (;;) {
            size_t child = 2 * position + 1;
            if (child >= entries.size()) break;
            if (child + 1 < entries.size() && isHandedOutAfter(entries[child], entries[child + 1])) ++child;
            if (!isHandedOutAfter(moving, entries[child])) break;
            put(position, std::move(entries[child]));
            position = child;
        }
        put(position, std::move(moving));
    }
};

void DCIActionQueuePlace::followPriority() const {
    const auto heap = heap_.lock();
    if (!heap) return;
    std::lock_guard lock(heap->mutex);
    if (position != kLeft) heap->followPriority(position);
}

DCIActionQueue::DCIActionQueue()
    : heap_(std::make_shared<DCIActionQueueHeap>()),
      pausedObservers_(std::make_shared<DCIPausedObservation::Registry>()) {}

std::shared_ptr<DCIActionQueue> DCIActionQueue::init() { return std::shared_ptr<DCIActionQueue>(new DCIActionQueue()); }

DCIActionQueue::~DCIActionQueue() {
    std::vector<DCIActionQueueHeap::Entry> released;  // destroyed unlocked
    std::lock_guard lock(heap_->mutex);
    for (auto& entry : heap_->entries) {
        entry.place->position = DCIActionQueuePlace::kLeft;
        entry.action->leaveQueue(*entry.place);
    }
    released.swap(heap_->entries);
}

void DCIActionQueue::addAction(const std::shared_ptr<DCIAction>& action) {
    if (!action) return;
    try {
        {
            auto& heap = *heap_;
            std::lock_guard lock(heap.mutex);
            if (action->waitsIn(&heap)) return;
            // Every allocation comes before the action counts as waiting: one failing after it
            // would leave an action that is never handed out and that every later add refuses.
            auto place = std::make_shared<DCIActionQueuePlace>(heap_);
            if (heap.entries.size() == heap.entries.capacity())
                heap.entries.reserve(std::max<size_t>(16, 2 * heap.entries.capacity()));
            // Listed in the action before its priority is read: see DCIAction::followPriorityInQueues.
            action->enterQueue(place);
            heap.push(DCIActionQueueHeap::Entry{action->priority(), action->timestamp().timePoint(),
                                                action->creationSequence_, action, std::move(place)});
            action->changeStatus(DCIActionStatusPending);
        }
        // Outside the queue's lock, so that an observer may take the action at once.
        std::lock_guard lock(pausedObservers_->mutex);
        pausedObservers_->notify(pausedObservers_->additionObservers);
    } catch (const std::bad_alloc&) {
        // Out of memory, where even a log line may not fit. The action is either not queued
        // or queued without its status change; either way its status tells the caller.
    }
}

std::shared_ptr<DCIAction> DCIActionQueue::popNextAction() {
    if (!running()) return nullptr;
    std::lock_guard lock(heap_->mutex);
    if (heap_->entries.empty()) return nullptr;
    auto top = heap_->popTop();
    top.action->leaveQueue(*top.place);
    return std::move(top.action);
}

std::vector<std::shared_ptr<DCIAction>> DCIActionQueue::queue() const {
    std::vector<DCIActionQueueHeap::Entry> entries;
    {
        std::lock_guard lock(heap_->mutex);
        entries = heap_->entries;
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return DCIActionQueueHeap::isHandedOutAfter(b, a); });
    std::vector<std::shared_ptr<DCIAction>> actions;
    actions.reserve(entries.size());
    for (auto& entry : entries) actions.push_back(std::move(entry.action));
    return actions;
}

void DCIActionQueue::pause() { changePaused(true); }

void DCIActionQueue::resume() { changePaused(false); }

void DCIActionQueue::changePaused(bool paused) {
    std::lock_guard lock(pausedObservers_->mutex);
    if (this->paused() == paused) return;
    pausedObservers_->notify(pausedObservers_->observers, true, !paused);
    running_.store(!paused);
    pausedObservers_->notify(pausedObservers_->observers, false, paused);
}

std::unique_ptr<DCIPausedObservation> DCIActionQueue::addPausedObserver(DCIPausedObserver observer) {
    std::lock_guard lock(pausedObservers_->mutex);
    const uint64_t identifier = pausedObservers_->add(pausedObservers_->observers, std::move(observer));
    return std::unique_ptr<DCIPausedObservation>(new DCIPausedObservation(pausedObservers_, identifier));
}

std::unique_ptr<DCIPausedObservation> DCIActionQueue::addAdditionObserver(DCIAdditionObserver observer) {
    std::lock_guard lock(pausedObservers_->mutex);
    const uint64_t identifier = pausedObservers_->add(pausedObservers_->additionObservers, std::move(observer));
    return std::unique_ptr<DCIPausedObservation>(new DCIPausedObservation(pausedObservers_, identifier));
}
