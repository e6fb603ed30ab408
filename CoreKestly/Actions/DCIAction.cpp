#include "CoreKestly/Actions/DCIAction.h"

#include "CoreKestly/Actions/DCIActionQueuePlace.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEventManager.h"

#include <algorithm>
#include <array>
#include <limits>

namespace {

std::atomic<uint64_t> nextCreationSequence{0};

uint64_t incrementedPriority(uint64_t priority, int64_t change) {
    if (change >= 0) {
        // Saturates: wrapping would turn the least urgent action into the most urgent one.
        const auto addend = static_cast<uint64_t>(change);
        const uint64_t room = std::numeric_limits<uint64_t>::max() - priority;
        return addend > room ? std::numeric_limits<uint64_t>::max() : priority + addend;
    }
    // The magnitude of INT64_MIN fits only in the unsigned type.
    const uint64_t magnitude = static_cast<uint64_t>(-(change + 1)) + 1;
    return priority >= magnitude ? priority - magnitude : 0;
}

}  // namespace

std::string_view DCIActionStatusText(int64_t status) {
    static constexpr std::array<std::string_view, 8> kTexts{"Undefined", "Restarted", "Pending", "Running",
                                                            "Paused",    "Canceled",  "Failed",  "Completed"};
    if (status < 0 || status >= static_cast<int64_t>(kTexts.size())) return "";
    return kTexts[static_cast<size_t>(status)];
}

DCIAction::DCIAction(uint64_t category, uint64_t type)
    : category_(category), type_(type), timestamp_(DCIDate::now()), creationSequence_(nextCreationSequence++) {}

std::shared_ptr<DCIAction> DCIAction::init() { return initWithCategory(DCIActionCategoryCommon, 0); }

std::shared_ptr<DCIAction> DCIAction::initWithCategory(uint64_t category, uint64_t type) {
    return std::shared_ptr<DCIAction>(new DCIAction(category, type));
}

DCIAction::~DCIAction() {
    if (!parent_) return;
    std::lock_guard lock(parent_->childrenMutex_);
    parent_->children_.erase(this);
}

bool DCIAction::isOfCategory(uint64_t category, uint64_t type) const {
    return category_ == category && type_ == type;
}

bool DCIAction::isPartOfCategory(uint64_t category, uint64_t type) const {
    for (const DCIAction* action = this; action; action = action->parent_.get()) {
        if (action->isOfCategory(category, type)) return true;
    }
    return false;
}

std::optional<DCIValue> DCIAction::contextObjectForKey(std::optional<std::string_view> key) const {
    if (!key) return std::nullopt;
    std::shared_lock lock(contextLock_);
    const auto entry = context_.find(*key);
    if (entry == context_.end()) return std::nullopt;
    return entry->second;
}

void DCIAction::setContextObject(std::optional<DCIValue> object, std::optional<std::string_view> key) {
    if (!object) {
        DCLogError("Not setting nil object for key %@", key);
        return;
    }
    if (!key) return;
    std::unique_lock lock(contextLock_);
    context_.insert_or_assign(std::string(*key), std::move(*object));
}

void DCIAction::addContextEntriesFromDictionary(const DCIDictionary& entries) {
    std::unique_lock lock(contextLock_);
    for (const auto& [key, value] : entries) context_.insert_or_assign(key, value);
}

void DCIAction::removeContextObjectForKey(std::optional<std::string_view> key) {
    if (!key) return;
    std::unique_lock lock(contextLock_);
    const auto entry = context_.find(*key);
    if (entry != context_.end()) context_.erase(entry);
}

void DCIAction::changeStatus(int64_t status) {
    const int64_t previous = status_.load();
    if (status == previous) return;

    auto event = DCIEvent::commonEventWithType(DCIEventTypeActionStatusChanged);
    event->setContext(DCIDictionary{{std::string(kDCIActionStatusKey), status},
                                    {std::string(kDCIActionPreviousStatusKey), previous}});
    event->setAction(shared_from_this());
    // Only a failure keeps its reason; the context changes before the status, as everywhere.
    if (status != DCIActionStatusFailed) removeContextObjectForKey(kDCIError);
    status_.store(status);
    DCIEventManager::postEvent(std::move(event));
}

void DCIAction::recursivelyChangeStatus(int64_t status) {
    for (const auto& child : children()) child->recursivelyChangeStatus(status);
    changeStatus(status);
}

void DCIAction::setPriority(uint64_t priority) {
    priority_.store(priority);
    followPriorityInQueues();
}

void DCIAction::recursivelySetPriority(uint64_t priority) {
    setPriority(priority);
    for (const auto& child : children()) child->recursivelySetPriority(priority);
}

void DCIAction::recursivelyIncrementPriority(int64_t change) {
    uint64_t priority = priority_.load();
    while (!priority_.compare_exchange_weak(priority, incrementedPriority(priority, change))) {
    }
    followPriorityInQueues();
    for (const auto& child : children()) child->recursivelyIncrementPriority(change);
}

void DCIAction::followPriorityInQueues() const {
    // The priority was stored before this test, and a queue counts the action as waiting
    // before it reads the priority (both sequentially consistent), so a queue either reads the
    // new value or is listed here. Queues are locked after the list is, never the other way.
    if (waitingCount_.load() == 0) return;
    std::vector<std::shared_ptr<DCIActionQueuePlace>> places;
    {
        std::lock_guard lock(placesMutex_);
        places = places_;
    }
    for (const auto& place : places) place->followPriority();
}

bool DCIAction::waitsIn(const DCIActionQueueHeap* queue) const {
    std::lock_guard lock(placesMutex_);
    return std::any_of(places_.begin(), places_.end(), [&](const auto& place) { return place->queue == queue; });
}

void DCIAction::enterQueue(std::shared_ptr<DCIActionQueuePlace> place) {
    std::lock_guard lock(placesMutex_);
    places_.push_back(std::move(place));
    ++waitingCount_;
}

void DCIAction::leaveQueue(const DCIActionQueuePlace& place) {
    std::lock_guard lock(placesMutex_);
    std::erase_if(places_, [&](const auto& entry) { return entry.get() == &place; });
    --waitingCount_;
}

void DCIAction::setParent(std::shared_ptr<DCIAction> parent) {
    if (parent == parent_) return;
    if (parent_) {
        std::lock_guard lock(parent_->childrenMutex_);
        parent_->children_.erase(this);
    }
    if (parent) {
        std::lock_guard lock(parent->childrenMutex_);
        parent->children_.insert_or_assign(this, weak_from_this());
    }
    parent_ = std::move(parent);
}

std::vector<std::shared_ptr<DCIAction>> DCIAction::children() const {
    // Declared before the lock, so a child whose last holder is this snapshot is destroyed
    // after the lock is released: its destructor takes the same lock.
    std::vector<std::shared_ptr<DCIAction>> snapshot;
    std::lock_guard lock(childrenMutex_);
    snapshot.reserve(children_.size());
    for (const auto& [address, child] : children_) {
        if (auto held = child.lock()) snapshot.push_back(std::move(held));
    }
    return snapshot;
}

std::shared_ptr<DCIAction> DCIAction::root() {
    DCIAction* top = this;
    while (top->parent_) top = top->parent_.get();
    return top->shared_from_this();
}

int64_t DCIAction::compareTo(const DCIAction& other) const {
    const uint64_t mine = priority();
    const uint64_t theirs = other.priority();
    if (mine != theirs) return mine < theirs ? 1 : -1;
    return other.timestamp_ < timestamp_ ? 1 : -1;
}

std::string DCIAction::description() const {
    DCIDictionary context;
    {
        std::shared_lock lock(contextLock_);
        context = context_;
    }
    return DCIFormat("Action\n\tCategory = %lu - Type = %lu\n\tStatus: %@\n\tContext: %@", category_, type_,
                     DCIActionStatusText(status()), DCIDescription(context));
}
