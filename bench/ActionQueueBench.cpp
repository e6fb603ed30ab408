// The action queue's hand-out. First 10,000 actions of mixed priorities are added and then
// all taken, against the naive queue that sorts its whole array at every hand-out; the
// queue's run is repeated with a random action's priority changed before every hand-out,
// its worst case. Then 4 threads take from a queue of 100,000 waiting actions while one
// thread adds 100,000 more: hand-outs per second. Last, 20,000 hand-outs from 100,000 waiting
// actions, each after a priority change there, next to a second queue as large that no
// change concerns.

#include "CoreKestly/Actions/DCIActionQueue.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Actions = std::vector<std::shared_ptr<DCIAction>>;

Actions actionsOfMixedPriorities(size_t count, unsigned seed) {
    std::mt19937 random(seed);
    Actions actions;
    actions.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        actions.push_back(DCIAction::init());
        actions.back()->setPriority(random() % 100);
    }
    return actions;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// What one writes first: an array kept under a lock, sorted whole at every hand-out.
class NaiveActionQueue {
public:
    void addAction(const std::shared_ptr<DCIAction>& action) {
        std::lock_guard lock(mutex_);
        if (std::find(queue_.begin(), queue_.end(), action) != queue_.end()) return;
        queue_.push_back(action);
        action->changeStatus(DCIActionStatusPending);
    }

    std::shared_ptr<DCIAction> popNextAction() {
        std::lock_guard lock(mutex_);
        if (queue_.empty()) return nullptr;
        std::sort(queue_.begin(), queue_.end(), [](const auto& a, const auto& b) {
            if (a->priority() != b->priority()) return a->priority() > b->priority();
            return a->timestamp() < b->timestamp();
        });
        auto action = std::move(queue_.back());
        queue_.pop_back();
        return action;
    }

private:
    std::mutex mutex_;
    Actions queue_;
};

constexpr size_t kActions = 10'000;

template <class Queue>
void addThenTakeAll(benchmark::State& state, Queue& queue, const Actions& actions, bool changePriorities) {
    std::mt19937 random(5);
    const auto start = Clock::now();
    for (const auto& action : actions) queue.addAction(action);
    const auto added = Clock::now();
    size_t taken = 0;
    for (size_t left = actions.size(); left > 0; --left) {
        if (changePriorities) actions[random() % actions.size()]->setPriority(random() % 100);
        taken += queue.popNextAction() != nullptr;
    }
    state.counters["add_ms"] = std::chrono::duration<double, std::milli>(added - start).count();
    state.counters["take_ms"] = std::chrono::duration<double, std::milli>(Clock::now() - added).count();
    state.SetIterationTime(secondsSince(start));
    if (taken != actions.size()) state.SkipWithError("an action went missing");
}

void BM_ActionQueueAddThenTakeAll(benchmark::State& state) {
    for (auto _ : state) {
        const auto actions = actionsOfMixedPriorities(kActions, 1);
        const auto queue = DCIActionQueue::init();
        addThenTakeAll(state, *queue, actions, state.range(0) != 0);
    }
}

void BM_NaiveSortEveryHandOut(benchmark::State& state) {
    for (auto _ : state) {
        const auto actions = actionsOfMixedPriorities(kActions, 1);
        NaiveActionQueue queue;
        addThenTakeAll(state, queue, actions, false);
    }
}

void BM_FourTakersOneAdder(benchmark::State& state) {
    constexpr size_t kWaiting = 100'000;
    constexpr size_t kAdded = 100'000;
    constexpr size_t kTakers = 4;
    for (auto _ : state) {
        const auto queue = DCIActionQueue::init();
        for (const auto& action : actionsOfMixedPriorities(kWaiting, 2)) queue->addAction(action);
        const auto more = actionsOfMixedPriorities(kAdded, 3);

        std::atomic<size_t> taken{0};
        std::vector<std::thread> threads;
        const auto start = Clock::now();
        threads.emplace_back([&] {
            for (const auto& action : more) queue->addAction(action);
        });
        for (size_t taker = 0; taker < kTakers; ++taker) {
            threads.emplace_back([&] {
                while (taken.load(std::memory_order_relaxed) < kWaiting + kAdded) {
                    if (queue->popNextAction()) taken.fetch_add(1, std::memory_order_relaxed);
                }
            });
        }
        for (auto& thread : threads) thread.join();
        const double seconds = secondsSince(start);
        state.counters["handouts_per_s"] = static_cast<double>(taken.load()) / seconds;
        state.SetIterationTime(seconds);
    }
}

void BM_HandOutsAfterChangesAmongManyWaiting(benchmark::State& state) {
    constexpr size_t kWaiting = 100'000;
    constexpr size_t kHandOuts = 20'000;
    for (auto _ : state) {
        const auto actions = actionsOfMixedPriorities(kWaiting, 4);
        const auto bystanders = actionsOfMixedPriorities(kWaiting, 6);
        const auto queue = DCIActionQueue::init();
        const auto other = DCIActionQueue::init();
        for (const auto& action : actions) queue->addAction(action);
        for (const auto& action : bystanders) other->addAction(action);
        std::mt19937 random(8);
        size_t taken = 0;
        const auto start = Clock::now();
        for (size_t i = 0; i < kHandOuts; ++i) {
            actions[random() % kWaiting]->setPriority(random() % 100);
            taken += queue->popNextAction() != nullptr;
            taken += other->popNextAction() != nullptr;
        }
        state.SetIterationTime(secondsSince(start));
        if (taken != 2 * kHandOuts) state.SkipWithError("an action went missing");
    }
}

}  // namespace

BENCHMARK(BM_ActionQueueAddThenTakeAll)->ArgName("priorityChangeEveryHandOut")->Arg(0)->Arg(1)->Iterations(5)
    ->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NaiveSortEveryHandOut)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FourTakersOneAdder)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HandOutsAfterChangesAmongManyWaiting)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
