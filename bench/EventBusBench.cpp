// The event bus under load: 1, 2 and 4 producer threads post one million events in all to a
// listener on the main thread. Reports the producers' median cost per post and the events
// delivered per second, next to a plain mutex-guarded deque woken through an eventfd.

#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t kEventsInAll = 1'000'000;
constexpr uint64_t kBatch = 1000;  // posts timed together, to keep the clock out of the figure
using Clock = std::chrono::steady_clock;

class CountingListener : public DCIEventListener {
public:
    std::atomic<uint64_t> received{0};
    void handleEvent(const std::shared_ptr<DCIEvent>&) override { received.fetch_add(1, std::memory_order_relaxed); }
};

// Runs `producers` threads that each post their share through `post`, while the main thread
// runs its loop until `delivered()` reaches the total; reports both figures.
template <class Post, class Delivered>
void runProducers(benchmark::State& state, int producers, Post post, Delivered delivered) {
    const uint64_t perProducer = kEventsInAll / static_cast<uint64_t>(producers);
    std::vector<std::vector<double>> batchCosts(static_cast<size_t>(producers));
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
            auto& costs = batchCosts[static_cast<size_t>(p)];
            for (uint64_t sent = 0; sent < perProducer; sent += kBatch) {
                const auto batchStart = Clock::now();
                for (uint64_t i = 0; i < kBatch; ++i) post(DCIEvent::initWithCategory(9, sent + i));
                costs.push_back(std::chrono::duration<double, std::nano>(Clock::now() - batchStart).count() / kBatch);
            }
        });
    }
    const uint64_t total = perProducer * static_cast<uint64_t>(producers);
    DCIRunLoop::main().runUntil([&] { return delivered() >= total; }, std::chrono::seconds(60));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& thread : threads) thread.join();

    std::vector<double> all;
    for (const auto& costs : batchCosts) all.insert(all.end(), costs.begin(), costs.end());
    std::nth_element(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2), all.end());
    state.counters["post_ns_median"] = all[all.size() / 2];
    state.counters["delivered_per_s"] = static_cast<double>(delivered()) / seconds;
    state.SetIterationTime(seconds);
}

void BM_EventBus(benchmark::State& state) {
    for (auto _ : state) {
        auto listener = std::make_shared<CountingListener>();
        DCIEventManager::addListener(listener);
        runProducers(
            state, static_cast<int>(state.range(0)), [](std::shared_ptr<DCIEvent> event) {
                DCIEventManager::postEvent(std::move(event));
            },
            [&] { return listener->received.load(std::memory_order_relaxed); });
        DCIEventManager::removeListener(listener);
    }
}

// The baseline: what one would write first, a locked deque and a wake-up when it was empty.
class MutexDequeBus {
public:
    explicit MutexDequeBus(std::shared_ptr<DCIEventListener> listener)
        : listener_(std::move(listener)), wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          source_(DCIRunLoop::main().addFileDescriptorSource(wake_, 1 /* EPOLLIN */, [this](uint32_t) { drain(); })) {}
    ~MutexDequeBus() {
        source_.reset();
        close(wake_);
    }

    void post(std::shared_ptr<DCIEvent> event) {
        bool wasEmpty;
        {
            std::lock_guard lock(mutex_);
            wasEmpty = queue_.empty();
            queue_.push_back(std::move(event));
        }
        if (wasEmpty) {
            const uint64_t one = 1;
            [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
        }
    }

private:
    void drain() {
        uint64_t count;
        [[maybe_unused]] const ssize_t read = ::read(wake_, &count, sizeof count);
        std::deque<std::shared_ptr<DCIEvent>> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(queue_);
        }
        for (const auto& event : batch) listener_->handleEvent(event);
    }

    std::shared_ptr<DCIEventListener> listener_;
    int wake_;
    std::unique_ptr<DCIRunLoopSource> source_;
    std::mutex mutex_;
    std::deque<std::shared_ptr<DCIEvent>> queue_;
};

void BM_MutexDequeBaseline(benchmark::State& state) {
    for (auto _ : state) {
        auto listener = std::make_shared<CountingListener>();
        MutexDequeBus bus(listener);
        runProducers(
            state, static_cast<int>(state.range(0)), [&bus](std::shared_ptr<DCIEvent> event) { bus.post(std::move(event)); },
            [&] { return listener->received.load(std::memory_order_relaxed); });
    }
}

}  // namespace

BENCHMARK(BM_EventBus)->Arg(1)->Arg(2)->Arg(4)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MutexDequeBaseline)->Arg(1)->Arg(2)->Arg(4)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
