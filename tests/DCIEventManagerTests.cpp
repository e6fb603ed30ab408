#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "support/EventRecorder.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace {

constexpr uint64_t kTestCategory = 42;

std::shared_ptr<DCIEvent> testEvent(uint64_t type) { return DCIEvent::initWithCategory(kTestCategory, type); }

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

private:
    std::vector<std::shared_ptr<EventRecorder>> registered_;
};

}  // namespace

TEST_F(DCIEventManagerTest, DeliversOnTheMainThreadInEachProducersOrder) {
    const auto recorder = addRecorder();
    constexpr uint64_t kPerThread = 2000;
    std::vector<std::thread> producers;
    for (uint64_t producer = 0; producer < 3; ++producer) {
        producers.emplace_back([producer] {
            for (uint64_t i = 0; i < kPerThread; ++i)
                DCIEventManager::postEvent(DCIEvent::initWithCategory(100 + producer, i));
        });
    }
    for (auto& producer : producers) producer.join();

    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder->events.size() == 3 * kPerThread; }));
    EXPECT_TRUE(recorder->allOnMainThread);
    for (uint64_t producer = 0; producer < 3; ++producer) {
        const auto types = recorder->typesOfCategory(100 + producer);
        ASSERT_EQ(types.size(), kPerThread);
        for (uint64_t i = 0; i < kPerThread; ++i) ASSERT_EQ(types[i], i) << "producer " << producer;
    }
}

TEST_F(DCIEventManagerTest, AnEventPostedByAListenerFollowsTheCurrentOneInTheSameDrain) {
    std::vector<std::string> arrivals;
    const auto first = addRecorder();
    const auto second = addRecorder();
    first->onEvent = [&](const auto& event) {
        arrivals.push_back("first:" + std::to_string(event->type()));
        if (event->type() == 1) DCIEventManager::postEvent(testEvent(2));
    };
    second->onEvent = [&](const auto& event) { arrivals.push_back("second:" + std::to_string(event->type())); };

    DCIEventManager::postEvent(testEvent(1));
    ASSERT_TRUE(DCIRunLoop::main().runOnce());
    // One drain served both events: the re-posted one came after every listener had the first.
    EXPECT_EQ(arrivals, (std::vector<std::string>{"first:1", "second:1", "first:2", "second:2"}));
}

TEST_F(DCIEventManagerTest, ListenersAddedOrRemovedDuringDeliveryChangeOnlyLaterEvents) {
    const auto latecomer = std::make_shared<EventRecorder>();
    const auto leaver = addRecorder();
    const auto host = addRecorder();
    host->onEvent = [&](const auto& event) {
        if (event->type() != 1) return;
        DCIEventManager::addListener(latecomer);
        DCIEventManager::removeListener(leaver);
    };

    DCIEventManager::postEvent(testEvent(1));
    DCIEventManager::postEvent(testEvent(2));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return host->events.size() == 2; }));

    EXPECT_EQ(leaver->typesOfCategory(kTestCategory), std::vector<uint64_t>{1});
    EXPECT_EQ(latecomer->typesOfCategory(kTestCategory), std::vector<uint64_t>{2});
    DCIEventManager::removeListener(latecomer);
}

TEST_F(DCIEventManagerTest, RemovingTheLastListenerInsideHandleEventDropsTheRestOfTheDrain) {
    const auto only = std::make_shared<EventRecorder>();
    only->onEvent = [&](const auto&) { DCIEventManager::removeListener(only); };
    DCIEventManager::addListener(only);

    for (uint64_t i = 0; i < 5; ++i) DCIEventManager::postEvent(testEvent(i));
    pumpMainLoopBriefly();
    EXPECT_EQ(only->typesOfCategory(kTestCategory), std::vector<uint64_t>{0});
    EXPECT_FALSE(DCIEventManager::hasSharedInstance());

    // A new bus starts clean: only what is posted from then on arrives.
    const auto fresh = addRecorder();
    DCIEventManager::postEvent(testEvent(9));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return !fresh->events.empty(); }));
    pumpMainLoopBriefly();
    EXPECT_EQ(fresh->typesOfCategory(kTestCategory), std::vector<uint64_t>{9});
}

TEST_F(DCIEventManagerTest, RegistrationRules) {
    // A listener registered twice hears each event once.
    const auto twice = addRecorder();
    DCIEventManager::addListener(twice);
    // Other objects are not registered, and nothing fails.
    DCIEventManager::addListener(std::make_shared<NotAListener>());
    DCIEventManager::addListener(nullptr);

    DCIEventManager::postEvent(testEvent(1));
    DCIEventManager::postEvent(nullptr);
    ASSERT_TRUE(pumpMainLoopUntil([&] { return !twice->events.empty(); }));
    pumpMainLoopBriefly();
    EXPECT_EQ(twice->events.size(), 1u);

    // Removing an object that was never registered leaves the bus as long as listeners remain.
    DCIEventManager::removeListener(std::make_shared<NotAListener>());
    EXPECT_TRUE(DCIEventManager::hasSharedInstance());
}

TEST_F(DCIEventManagerTest, TwoListenersInsideOneObjectAreTwo) {
    struct Pair : DCIObject {
        EventRecorder left, right;
    };
    const auto pair = std::make_shared<Pair>();
    const std::shared_ptr<EventRecorder> left(pair, &pair->left), right(pair, &pair->right);
    DCIEventManager::addListener(left);
    DCIEventManager::addListener(right);
    DCIEventManager::postEvent(testEvent(1));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return pair->left.events.size() == 1 && pair->right.events.size() == 1; }));

    DCIEventManager::removeListener(right);
    DCIEventManager::postEvent(testEvent(2));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return pair->left.events.size() == 2; }));
    EXPECT_EQ(pair->right.events.size(), 1u);
    DCIEventManager::removeListener(left);
}

TEST_F(DCIEventManagerTest, AnObjectThatIsNoListenerStillCreatesTheBus) {
    const auto stranger = std::make_shared<NotAListener>();
    DCIEventManager::addListener(stranger);
    EXPECT_TRUE(DCIEventManager::hasSharedInstance());
    DCIEventManager::postEvent(testEvent(1));  // delivered to nobody
    pumpMainLoopBriefly();
    // The set is empty, so removing anything releases the bus.
    DCIEventManager::removeListener(stranger);
    EXPECT_FALSE(DCIEventManager::hasSharedInstance());
}

TEST_F(DCIEventManagerTest, EventsWithoutABusAreDroppedForGood) {
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

    const auto second = addRecorder();
    DCIEventManager::postEvent(testEvent(4));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return !second->events.empty(); }));
    pumpMainLoopBriefly();
    EXPECT_TRUE(first->events.empty());
    EXPECT_EQ(second->typesOfCategory(kTestCategory), std::vector<uint64_t>{4});
}

TEST_F(DCIEventManagerTest, ADestroyedListenerIsSkipped) {
    const auto survivor = addRecorder();
    auto doomed = std::make_shared<EventRecorder>();
    DCIEventManager::addListener(doomed);
    const std::weak_ptr<EventRecorder> watch = doomed;
    doomed.reset();
    ASSERT_TRUE(watch.expired());

    DCIEventManager::postEvent(testEvent(1));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return !survivor->events.empty(); }));
}

TEST_F(DCIEventManagerTest, AThrowingListenerIsLoggedAndDeliveryGoesOn) {
    auto thrower = addRecorder();
    thrower->onEvent = [](const auto& event) {
        if (event->type() == 1) throw std::runtime_error("listener failure 8841");
        if (event->type() == 2) throw 7;
    };
    const auto other = addRecorder();
    for (uint64_t i = 1; i <= 3; ++i) DCIEventManager::postEvent(testEvent(i));
    ASSERT_TRUE(pumpMainLoopUntil([&] { return other->events.size() == 3; }));
    EXPECT_EQ(thrower->events.size(), 3u);

    DCLogger::sharedLogger().flush();
    const std::string log = readWholeFile(DCLogger::sharedLogger().currentLogFileURL());
    EXPECT_NE(log.find("threw while handling event"), std::string::npos);
    EXPECT_NE(log.find("listener failure 8841"), std::string::npos);
}

TEST_F(DCIEventManagerTest, ProducersRacingTheLastRemovalNeverCrashAndStopReaching) {
    const auto recorder = addRecorder();
    std::atomic<bool> running{true};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < 4; ++producer) {
        producers.emplace_back([&running] {
            uint64_t i = 0;
            while (running.load(std::memory_order_relaxed)) DCIEventManager::postEvent(testEvent(i++));
        });
    }
    const bool delivering = pumpMainLoopUntil([&] { return recorder->events.size() > 1000; });
    DCIEventManager::removeListener(recorder);
    const size_t atRemoval = recorder->events.size();
    pumpMainLoopBriefly();
    running = false;
    for (auto& producer : producers) producer.join();
    pumpMainLoopBriefly();
    EXPECT_TRUE(delivering);
    EXPECT_EQ(recorder->events.size(), atRemoval);
    EXPECT_FALSE(DCIEventManager::hasSharedInstance());
}
