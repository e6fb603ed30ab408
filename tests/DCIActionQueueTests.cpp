#include "CoreKestly/Actions/DCIActionQueue.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "support/EventRecorder.h"
#include "support/Testing.h"

#include <new>

// Allocations this thread makes before one fails; negative: none fails. It counts down to the
// one that fails and then stays below zero.
static thread_local long allocationsBeforeFailure = -1;

void* operator new(std::size_t size) {
    if (allocationsBeforeFailure >= 0 && allocationsBeforeFailure-- == 0) throw std::bad_alloc();
    if (void* memory = std::malloc(size ? size : 1)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

using Actions = std::vector<std::shared_ptr<DCIAction>>;

std::shared_ptr<DCIAction> actionWithPriority(uint64_t priority) {
    auto action = DCIAction::init();
    action->setPriority(priority);
    return action;
}

// Takes from the queue until it answers nothing.
Actions drain(DCIActionQueue& queue) {
    Actions taken;
    while (auto action = queue.popNextAction()) taken.push_back(std::move(action));
    return taken;
}

// The pending-status events reach a real listener on the main thread; the bus is gone again
// after each test, so no test sees another's events.
class DCIActionQueueTest : public ::testing::Test {
protected:
    std::shared_ptr<DCIActionQueue> queue_ = DCIActionQueue::init();
    ListeningRecorder recorder_;
};

}  // namespace

// Checked against a plain model of what waits, each action with its rank of creation: the next
// to hand out has the smallest priority and, among those, the newest.
TEST_F(DCIActionQueueTest, FollowsTheOrderWhileActionsComeGoAndChangePriority) {
    std::mt19937 random(11);
    std::vector<std::pair<size_t, std::shared_ptr<DCIAction>>> waiting;
    size_t created = 0;
    const auto handedOutBefore = [](const auto& a, const auto& b) {
        return std::make_tuple(a.second->priority(), b.first) < std::make_tuple(b.second->priority(), a.first);
    };
    const auto expectQueueAsModelled = [&] {
        std::ranges::sort(waiting, handedOutBefore);
        Actions expected;
        for (const auto& [rank, action] : waiting) expected.push_back(action);
        EXPECT_EQ(queue_->queue(), expected);
    };
    for (int step = 0; step < 3000; ++step) {
        const auto choice = random() % 10;
        if (choice < 5) {
            // Two at a time, the newer added first: creation, not arrival, orders equal priorities.
            const auto older = actionWithPriority(random() % 20), newer = actionWithPriority(random() % 20);
            waiting.emplace_back(created++, older);
            waiting.emplace_back(created++, newer);
            queue_->addAction(newer);
            queue_->addAction(older);
        } else if (choice < 7 && !waiting.empty()) {
            waiting[random() % waiting.size()].second->setPriority(random() % 20);
            if (step % 100 < 2) expectQueueAsModelled();
        } else {
            const auto next = std::ranges::min_element(waiting, handedOutBefore);
            const auto expected = next == waiting.end() ? nullptr : next->second;
            ASSERT_EQ(queue_->popNextAction(), expected) << "step " << step;
            if (expected) waiting.erase(next);
        }
    }
    expectQueueAsModelled();
}

TEST_F(DCIActionQueueTest, APriorityChangedThroughTheTreeCountsAtTheNextHandOutInEveryQueue) {
    // The group's parent does not wait, its children do; the member waits in another queue too.
    const auto group = DCIAction::init(), member = actionWithPriority(10), other = actionWithPriority(6);
    const auto otherQueue = DCIActionQueue::init();
    member->setParent(group);
    queue_->addAction(member);
    otherQueue->addAction(member);
    queue_->addAction(other);
    EXPECT_EQ(otherQueue->popNextAction(), member);  // taken from one queue, it still waits in this one
    group->recursivelyIncrementPriority(-8);
    EXPECT_EQ(drain(*queue_), (Actions{member, other}));
    queue_->addAction(member);
    queue_->addAction(other);
    group->recursivelySetPriority(7);
    EXPECT_EQ(drain(*queue_), (Actions{other, member}));
}

TEST_F(DCIActionQueueTest, AWaitingActionIsHeldOnceAndAFinishedOneQueuedAgainAsPending) {
    const auto action = DCIAction::init();
    queue_->addAction(action);
    queue_->addAction(action);
    queue_->addAction(nullptr);
    EXPECT_EQ(queue_->queue(), Actions{action});
    EXPECT_EQ(drain(*queue_), Actions{action});
    action->changeStatus(DCIActionStatusCompleted);
    queue_->addAction(action);
    EXPECT_EQ(action->status(), DCIActionStatusPending);
    EXPECT_EQ(drain(*queue_), Actions{action});
    pumpMainLoopBriefly();
    EXPECT_EQ(recorder_->statusChangesOf(action), (std::vector<StatusChange>{{2, 0}, {7, 2}, {2, 7}}));
}

TEST_F(DCIActionQueueTest, AnAddThatRunsOutOfMemoryLeavesTheActionFreeToBeAddedAgain) {
    // Fails each allocation of one add in turn, until an add needs no more than were allowed.
    for (long allowed = 0;; ++allowed) {
        const auto queue = DCIActionQueue::init();
        const auto first = DCIAction::init(), second = DCIAction::init();
        queue->addAction(first);  // the heap is full now, if it ever is
        allocationsBeforeFailure = allowed;
        EXPECT_NO_THROW(queue->addAction(second));
        const bool failed = allocationsBeforeFailure < 0;
        allocationsBeforeFailure = -1;
        if (!failed) break;
        queue->addAction(second);
        EXPECT_EQ(drain(*queue), (Actions{second, first})) << "allocation " << allowed << " failed";
    }
}

TEST_F(DCIActionQueueTest, PausedQueuesTakeButHandOutNothingAndTellOnlyRealTransitions) {
    // Each call: whether prior, the value told, the queue's state meanwhile, the calling thread.
    using Heard = std::vector<std::tuple<bool, bool, bool, std::thread::id>>;
    Heard heard;
    auto observation = queue_->addPausedObserver([&](bool isPrior, bool paused) {
        heard.emplace_back(isPrior, paused, queue_->paused(), std::this_thread::get_id());
    });
    const auto first = DCIAction::init(), second = DCIAction::init();
    queue_->resume();
    queue_->addAction(first);
    std::thread::id pauser;
    std::thread([&] { pauser = std::this_thread::get_id(); queue_->pause(); queue_->pause(); }).join();
    queue_->addAction(second);
    EXPECT_EQ(std::tuple(second->status(), queue_->popNextAction()), std::tuple(DCIActionStatusPending, std::shared_ptr<DCIAction>()));
    EXPECT_EQ(heard, (Heard{{true, false, false, pauser}, {false, true, true, pauser}}));

    heard.clear();
    queue_->resume();
    const auto here = std::this_thread::get_id();
    EXPECT_EQ(heard, (Heard{{true, true, true, here}, {false, false, false, here}}));
    EXPECT_EQ(drain(*queue_), (Actions{second, first}));

    heard.clear();
    queue_->setRunning(false);
    queue_->setRunning(true);
    observation.reset();
    queue_->pause();
    EXPECT_TRUE(heard.empty());
}

TEST_F(DCIActionQueueTest, ObserversMayChangeTheQueueFromTheirCallback) {
    int calls = 0;
    std::unique_ptr<DCIPausedObservation> observation = queue_->addPausedObserver([&](bool isPrior, bool paused) {
        ++calls;
        if (!isPrior && paused) { observation.reset(); queue_->resume(); }
    });
    queue_->pause();
    EXPECT_EQ(std::tuple(calls, queue_->running()), std::tuple(2, true));

    // An addition is told once the action can be taken; a removed observer hears no more.
    const auto action = DCIAction::init();
    Actions taken;
    auto additions = queue_->addAdditionObserver([&] { taken.push_back(queue_->popNextAction()); });
    queue_->addAction(action);
    additions.reset();
    queue_->addAction(action);
    EXPECT_EQ(taken, Actions{action});

    // An observation may outlive its queue.
    auto late = queue_->addPausedObserver([](bool, bool) {});
    queue_.reset();
    late.reset();
}

// Without a listener, so that no status event keeps an action alive.
TEST(DCIActionQueue, HoldsActionsOnlyWhileTheyWait) {
    auto queue = DCIActionQueue::init();
    auto first = actionWithPriority(1), second = actionWithPriority(2);
    const std::weak_ptr<DCIAction> taken = first, left = second;
    queue->addAction(std::exchange(first, nullptr));
    queue->addAction(std::exchange(second, nullptr));
    EXPECT_FALSE(taken.expired());
    queue->popNextAction();
    EXPECT_EQ(std::tuple(taken.expired(), left.expired()), std::tuple(true, false));
    queue.reset();
    EXPECT_TRUE(left.expired());
}

TEST_F(DCIActionQueueTest, ConcurrentTakersGetEachActionExactlyOnce) {
    constexpr size_t kAdders = 2, kPerAdder = 3000, kTakers = 4, kTotal = kAdders * kPerAdder;
    Actions all;
    for (size_t i = 0; i < kTotal; ++i) all.push_back(actionWithPriority(i % 17));
    std::atomic<size_t> takenCount{0};
    // A lost action must fail the test, not hang it.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto goOn = [&] { return takenCount < kTotal && std::chrono::steady_clock::now() < deadline; };

    std::vector<Actions> takenBy(kTakers);
    {
        const auto adders = startThreads(kAdders, [&](int adder) {
            for (size_t i = 0; i < kPerAdder; ++i) queue_->addAction(all[size_t(adder) * kPerAdder + i]);
        });
        const auto takers = startThreads(kTakers, [&](int taker) {
            while (goOn()) {
                if (auto action = queue_->popNextAction()) {
                    takenBy[size_t(taker)].push_back(std::move(action));
                    ++takenCount;
                } else {
                    std::this_thread::yield();
                }
            }
        });
        // Reorders waiting actions and pauses hand-out now and then, while the threads run.
        std::mt19937 random(3);
        for (int round = 0; goOn(); ++round) {
            all[random() % kTotal]->setPriority(random() % 17);
            if (round % 64 == 0) queue_->pause();
            if (round % 64 == 1) queue_->resume();
        }
        queue_->resume();
    }
    ASSERT_EQ(takenCount, kTotal) << "actions were lost";
    std::set<std::shared_ptr<DCIAction>> distinct;
    for (const auto& taken : takenBy) distinct.insert(taken.begin(), taken.end());
    EXPECT_EQ(std::tuple(distinct.size(), queue_->popNextAction()), std::tuple(kTotal, std::shared_ptr<DCIAction>()));

    // Each was announced pending once, from the adders' threads, without their waiting for
    // the main thread, which was busy meanwhile.
    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder_->events.size() == kTotal; }));
    std::set<DCIAction*> announced;
    for (const auto& event : recorder_->events) {
        EXPECT_EQ(event->contextValue(kDCIActionStatusKey)->int64Value(), DCIActionStatusPending);
        announced.insert(event->action().get());
    }
    EXPECT_EQ(announced.size(), kTotal);
}
