#include "CoreKestly/Actions/DCIAction.h"

#include "CoreKestly/Events/DCIEventManager.h"
#include "support/EventRecorder.h"
#include "support/LogReading.h"
#include "support/Testing.h"

#include <poll.h>

#include <set>

namespace {

constexpr uint64_t kTestCategory = 42;

std::shared_ptr<DCIEvent> testEvent(uint64_t type) { return DCIEvent::initWithCategory(kTestCategory, type); }

void postTestEvents(std::initializer_list<uint64_t> types) { for (auto type : types) DCIEventManager::postEvent(testEvent(type)); }

class NotAListener : public DCIObject {};

// Every test starts and ends with no bus, so that one test's listeners never see another's
// events.
class DCIEventManagerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(DCIEventManager::hasSharedInstance()); }
    void TearDown() override {
        for (const auto& listener : registered_) DCIEventManager::removeListener(listener);
        pumpMainLoopBriefly();
        EXPECT_FALSE(DCIEventManager::hasSharedInstance());
    }

    std::shared_ptr<EventRecorder> addRecorder() {
        auto recorder = std::make_shared<EventRecorder>();
        DCIEventManager::addListener(recorder);
        registered_.push_back(recorder);
        return recorder;
    }

    // Pumps until `recorder` has as many events as expected, and a little longer for extra ones.
    static void expectTypes(const EventRecorder& recorder, const std::vector<uint64_t>& types) {
        pumpMainLoopUntil([&] { return recorder.events.size() >= types.size(); });
        pumpMainLoopBriefly();
        EXPECT_EQ(recorder.typesOfCategory(kTestCategory), types);
    }

private:
    std::vector<std::shared_ptr<EventRecorder>> registered_;
};

}  // namespace

// The main loop drains while the producers post in bursts, so that it often finds the queue
// empty or a post half-way and must be woken: a lost wake-up fails by the deadline. Enough
// events pass to fill many of the queue's blocks and reuse them.
TEST_F(DCIEventManagerTest, DeliversOnTheMainThreadInEachProducersOrderStampedAtCreation) {
    const auto recorder = addRecorder();
    constexpr uint64_t kProducers = 4, kPerThread = 20'000;
    const auto start = DCIDate::now();
    const auto producers = startThreads(kProducers, [](int producer) {
        for (uint64_t i = 0; i < kPerThread; ++i) {
            if (i % 500 == 0) std::this_thread::sleep_for(1ms);  // lets the loop find the queue empty
            DCIEventManager::postEvent(DCIEvent::initWithCategory(100 + uint64_t(producer), i));
        }
    });
    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder->events.size() == kProducers * kPerThread; }, 20s));
    EXPECT_TRUE(recorder->allOnMainThread);
    for (uint64_t producer = 0; producer < kProducers; ++producer) {
        const auto types = recorder->typesOfCategory(100 + producer);
        ASSERT_EQ(types.size(), kPerThread);
        for (uint64_t i = 0; i < kPerThread; ++i) ASSERT_EQ(types[i], i) << "producer " << producer;
    }
    const auto stamp = recorder->events.back()->timestamp();
    EXPECT_TRUE(stamp && *stamp >= start && *stamp <= DCIDate::now());
}

// A listener that opens a modal dialog on event 1 runs the loop again as a host does: it
// waits on the loop's descriptor and calls runOnce() until the other listener has had every
// event and a worker's performSync, waiting on the main thread, has returned. A lost wake-up
// ends the wait early. On event 1 it also posts 4 and adds a latecomer, which hears only the
// events after 1; an exception it throws is logged and delivery goes on. The arrivals mark where each nested loop returned: an event held, repeated
// or out of order, or a listener told of an event before the one ahead of it, shows there.
TEST_F(DCIEventManagerTest, WhatAListenerDoesDuringDeliveryEvenInANestedLoopChangesOnlyLaterEvents) {
    struct Case { const char* name; std::set<uint64_t> nestOn; uint64_t leaveOn, throwOn; const char* arrivals; };
    const Case cases[] = {
        {"nests in every nested loop", {1, 2, 3}, 0, 0, "n1o1n2o2l2n3o3l3n4o4l4)))"},
        {"leaves inside the nested loop", {1}, 2, 0, "n1o1n2o2l2o3l3o4l4)"},
        {"throws once its nested loops returned", {1, 2}, 0, 1, "n1o1n2o2l2n3o3l3n4o4l4))"},
        {"nests once and throws something else inside its loop", {1}, 0, 2, "n1o1n2o2l2n3o3l3n4o4l4)"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const LogSince log;
        std::string arrivals;
        const auto nester = addRecorder(), other = addRecorder(), latecomer = std::make_shared<EventRecorder>();
        std::atomic<bool> served = false;
        std::jthread worker;
        other->onEvent = [&](const auto& event) { arrivals += "o" + std::to_string(event->type()); };
        latecomer->onEvent = [&](const auto& event) { arrivals += "l" + std::to_string(event->type()); };
        nester->onEvent = [&](const auto& event) {
            arrivals += "n" + std::to_string(event->type());
            if (event->type() == 1) {
                DCIEventManager::postEvent(testEvent(4));
                DCIEventManager::addListener(latecomer);
                worker = std::jthread([&] { DCIRunLoop::main().performSync([&] { served = DCIIsMainThread(); }); });
            }
            if (event->type() == row.leaveOn) DCIEventManager::removeListener(nester);
            if (!row.nestOn.contains(event->type())) {
                if (event->type() == row.throwOn) throw 7;
                return;
            }
            while (!served || other->events.size() < 4) {
                pollfd loop{DCIRunLoop::main().fileDescriptor(), POLLIN, 0};
                if (!DCIRunLoop::main().runOnce() && poll(&loop, 1, 5'000) != 1) break;
            }
            arrivals += served ? ")" : "(not served)";
            if (event->type() == row.throwOn) throw std::runtime_error("dialog failed");
        };
        postTestEvents({1, 2, 3});
        expectTypes(*latecomer, {2, 3, 4});
        EXPECT_EQ(arrivals, row.arrivals);
        EXPECT_EQ(log.text().find("threw while handling event") != std::string::npos, row.throwOn != 0);
        for (const auto& listener : {nester, other, latecomer}) DCIEventManager::removeListener(listener);
    }
}

TEST_F(DCIEventManagerTest, RegistrationRules) {
    // An object that is no listener still creates the bus, which then drains to nobody; with
    // no listener registered, removing anything releases it.
    const auto stranger = std::make_shared<NotAListener>();
    DCIEventManager::addListener(stranger);
    ASSERT_TRUE(DCIEventManager::hasSharedInstance());
    postTestEvents({0});
    pumpMainLoopBriefly();
    DCIEventManager::removeListener(stranger);
    EXPECT_FALSE(DCIEventManager::hasSharedInstance());

    // Registered twice, a listener hears each event once; other objects are not registered.
    const auto twice = addRecorder();
    DCIEventManager::addListener(twice);
    DCIEventManager::addListener(std::make_shared<NotAListener>());
    DCIEventManager::addListener(nullptr);
    // Two listeners inside one object are two.
    struct Pair : DCIObject { EventRecorder left, right; };
    const auto pair = std::make_shared<Pair>();
    const std::shared_ptr<EventRecorder> left(pair, &pair->left), right(pair, &pair->right);
    DCIEventManager::addListener(left);
    DCIEventManager::addListener(right);
    // One destroyed while registered is skipped.
    auto doomed = std::make_shared<EventRecorder>();
    DCIEventManager::addListener(doomed);
    doomed.reset();

    postTestEvents({1});
    DCIEventManager::postEvent(nullptr);
    expectTypes(*twice, {1});
    EXPECT_EQ(pair->right.events.size(), 1u);

    DCIEventManager::removeListener(right);
    DCIEventManager::removeListener(std::make_shared<NotAListener>());
    postTestEvents({2});
    expectTypes(pair->left, {1, 2});
    EXPECT_EQ(pair->right.events.size(), 1u);
    DCIEventManager::removeListener(left);
}

TEST_F(DCIEventManagerTest, EventsQueuedWhenTheLastListenerGoesAreFreedAndNeverDelivered) {
    DCIEventManager::postEvent(testEvent(1));  // no bus yet
    const auto first = addRecorder();
    auto queued = testEvent(2);
    auto action = DCIAction::init();
    const std::weak_ptr<DCIAction> carried = action;
    queued->setAction(std::move(action));
    DCIEventManager::postEvent(std::move(queued));
    DCIEventManager::removeListener(first);  // 2 is still queued: it dies with the bus, at once
    EXPECT_TRUE(carried.expired());
    DCIEventManager::postEvent(testEvent(3));

    // The same, removed from inside handleEvent: the rest of the queue goes too.
    const auto only = std::make_shared<EventRecorder>();
    only->onEvent = [&](const auto&) { DCIEventManager::removeListener(only); };
    DCIEventManager::addListener(only);
    postTestEvents({4, 5, 6});
    pumpMainLoopBriefly();
    EXPECT_EQ(only->typesOfCategory(kTestCategory), std::vector<uint64_t>{4});
    EXPECT_FALSE(DCIEventManager::hasSharedInstance());

    const auto last = addRecorder();
    postTestEvents({7});
    expectTypes(*last, {7});
    EXPECT_TRUE(first->events.empty());
}

TEST_F(DCIEventManagerTest, ProducersRacingTheLastRemovalNeverCrashAndStopReaching) {
    const auto recorder = addRecorder();
    bool delivering = false;
    size_t atRemoval = 0;
    whileRepeatedOnThreads(4, [] { DCIEventManager::postEvent(testEvent(1)); }, [&] {
        delivering = pumpMainLoopUntil([&] { return recorder->events.size() > 1000; });
        DCIEventManager::removeListener(recorder);
        atRemoval = recorder->events.size();
        pumpMainLoopBriefly();
    });
    pumpMainLoopBriefly();
    EXPECT_EQ(std::tuple(delivering, recorder->events.size(), DCIEventManager::hasSharedInstance()),
              std::tuple(true, atRemoval, false));
}
