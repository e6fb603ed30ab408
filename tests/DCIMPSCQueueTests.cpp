#include "CoreKestly/Platform/DCIMPSCQueueInternal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <semaphore>
#include <thread>
#include <vector>

// Producers race a consumer that sleeps whenever it finds the queue empty, as the event bus's
// drain does: every item must arrive once, in its producer's order, across many blocks and
// recycled ones, and no wake-up may be lost (the deadline turns a lost one into a failure).
TEST(DCIMPSCQueueTest, ConcurrentPushesArriveOnceInEachProducersOrderAndWakeTheConsumer) {
    struct Item {
        size_t producer;
        int sequence;
    };
    constexpr size_t kProducers = 4;
    constexpr int kPerProducer = 50'000;
    DCIMPSCQueue<Item> queue;
    std::counting_semaphore<> wake(0);  // the first push wakes a consumer that never slept
    std::vector<std::jthread> producers;  // joined however the test ends
    for (size_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                if (queue.push({p, i})) wake.release();
            }
        });
    }
    std::vector<int> next(kProducers, 0);
    std::vector<Item> batch;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (size_t received = 0; received < kProducers * kPerProducer;) {
        const auto [taken, end] = queue.take(batch, 300);
        for (const Item& item : batch) ASSERT_EQ(item.sequence, next[item.producer]++) << "producer " << item.producer;
        received += taken;
        batch.clear();
        if (received == kProducers * kPerProducer) break;
        if (end == DCIMPSCQueue<Item>::End::Empty) {
            ASSERT_TRUE(wake.try_acquire_until(deadline)) << "a wake-up was lost after " << received;
        } else if (end == DCIMPSCQueue<Item>::End::Stalled) {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(queue.take(batch, 1).second, DCIMPSCQueue<Item>::End::Empty);
}
