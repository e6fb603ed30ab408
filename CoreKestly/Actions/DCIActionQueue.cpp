#include "CoreKestly/Actions/DCIActionQueue.h"

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

DCIActionQueue::DCIActionQueue()
    : priorityChangesSeen_(DCIAction::waitingPriorityChanges()),
      pausedObservers_(std::make_shared<DCIPausedObservation::Registry>()) {}

std::shared_ptr<DCIActionQueue> DCIActionQueue::init() { return std::shared_ptr<DCIActionQueue>(new DCIActionQueue()); }

DCIActionQueue::~DCIActionQueue() {
    for (const auto& entry : heap_) --entry.action->waitingCount_;
}

bool DCIActionQueue::isHandedOutAfter(const Entry& a, const Entry& b) {
    if (a.priority != b.priority) return a.priority > b.priority;
    // Newest first. Timestamps decide wherever they differ, as `compareTo` does; the creation
    // sequence orders equal ones, which keeps the ordering strict (std::*_heap needs that).
    if (a.created != b.created) return a.created < b.created;
    return a.creationSequence < b.creationSequence;
}

void DCIActionQueue::addAction(const std::shared_ptr<DCIAction>& action) {
    if (!action) return;
    try {
        {
            std::lock_guard lock(mutex_);
            if (waiting_.contains(action.get())) return;
            // Every allocation comes before the action counts as waiting: one failing after it
            // would leave an action that is never handed out and that every later add refuses.
            if (heap_.size() == heap_.capacity()) heap_.reserve(std::max<size_t>(16, 2 * heap_.capacity()));
            waiting_.insert(action.get());
            // Counted as waiting before its priority is read: see DCIAction::announcePriorityChange.
            ++action->waitingCount_;
            heap_.push_back(
                Entry{action->priority(), action->timestamp().timePoint(), action->creationSequence_, action});
            std::push_heap(heap_.begin(), heap_.end(), isHandedOutAfter);
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
    std::lock_guard lock(mutex_);
    if (heap_.empty()) return nullptr;
    catchUpWithPriorityChanges();
    std::pop_heap(heap_.begin(), heap_.end(), isHandedOutAfter);
    auto action = std::move(heap_.back().action);
    heap_.pop_back();
    waiting_.erase(action.get());
    --action->waitingCount_;
    return action;
}

void DCIActionQueue::catchUpWithPriorityChanges() {
    // Read before the priorities: a change that lands during the pass is caught next time.
    const uint64_t changes = DCIAction::waitingPriorityChanges();
    if (changes == priorityChangesSeen_) return;
    priorityChangesSeen_ = changes;
    bool reordered = false;
    for (auto& entry : heap_) {
        const uint64_t priority = entry.action->priority();
        reordered = reordered || priority != entry.priority;
        entry.priority = priority;
    }
    if (reordered) std::make_heap(heap_.begin(), heap_.end(), isHandedOutAfter);
}

std::vector<std::shared_ptr<DCIAction>> DCIActionQueue::queue() const {
    std::vector<Entry> entries;
    {
        std::lock_guard lock(mutex_);
        entries = heap_;
    }
    for (auto& entry : entries) entry.priority = entry.action->priority();
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return isHandedOutAfter(b, a); });
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
