#pragma once

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

/// A status change as its event tells it: the new status, then the previous one.
using StatusChange = std::pair<int64_t, int64_t>;

/// A listener that keeps every event it is handed, and whether it came on the main thread;
/// `onEvent` lets a test act from inside `handleEvent`.
class EventRecorder : public DCIEventListener {
public:
    std::vector<std::shared_ptr<DCIEvent>> events;
    bool allOnMainThread = true;
    std::function<void(const std::shared_ptr<DCIEvent>&)> onEvent;

    void handleEvent(const std::shared_ptr<DCIEvent>& event) override {
        allOnMainThread = allOnMainThread && DCIIsMainThread();
        events.push_back(event);
        if (onEvent) onEvent(event);
    }

    /// The types of the received events of `category`, in arrival order.
    std::vector<uint64_t> typesOfCategory(uint64_t category) const {
        std::vector<uint64_t> types;
        for (const auto& event : events) {
            if (event->category() == category) types.push_back(event->type());
        }
        return types;
    }

    /// The status changes announced so far for `action`, in arrival order. An event that lacks
    /// either number throws, which fails the test.
    std::vector<StatusChange> statusChangesOf(const std::shared_ptr<DCIAction>& action) const {
        std::vector<StatusChange> changes;
        for (const auto& event : events) {
            if (!event->isCommonEventOfType(DCIEventTypeActionStatusChanged) || event->action() != action) continue;
            changes.emplace_back(event->contextValue(kDCIActionStatusKey).value().int64Value().value(),
                                 event->contextValue(kDCIActionPreviousStatusKey).value().int64Value().value());
        }
        return changes;
    }
};

/// A recorder that listens to the bus while it exists, and checks when it goes that every event
/// came on the main thread.
class ListeningRecorder {
public:
    ListeningRecorder() { DCIEventManager::addListener(recorder_); }
    ~ListeningRecorder() {
        DCIEventManager::removeListener(recorder_);
        EXPECT_TRUE(recorder_->allOnMainThread);
    }
    ListeningRecorder(const ListeningRecorder&) = delete;
    ListeningRecorder& operator=(const ListeningRecorder&) = delete;

    EventRecorder* operator->() const { return recorder_.get(); }

private:
    std::shared_ptr<EventRecorder> recorder_ = std::make_shared<EventRecorder>();
};

/// Runs the main loop until `predicate` holds or five seconds have passed.
inline bool pumpMainLoopUntil(const std::function<bool()>& predicate,
                              std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    return DCIRunLoop::main().runUntil(predicate, timeout);
}

/// Runs the main loop long enough for anything already queued to be delivered.
inline void pumpMainLoopBriefly() {
    DCIRunLoop::main().runUntil(DCIRunLoop::Clock::now() + std::chrono::milliseconds(50));
}
