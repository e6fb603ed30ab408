#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

/// An unbounded first-in-first-out queue that many threads push to without a lock and one
/// consumer at a time takes from, with the consumer's wake-ups built in.
///
/// Every push draws the next position from one counter, so positions fix one global order
/// that is also each producer's own, and the consumer takes them in that order. Positions
/// live in blocks of consecutive slots, found through a ring of block pointers: the consumer
/// reads memory in the order it was written, which the hardware fetches ahead, where a linked
/// list would make it wait for every item's cache line in turn. A block is reached only by
/// the position of a slot in it that is not yet taken, so the consumer may retire a block as
/// soon as it has taken the block's last slot: no producer can still be on its way to it.
///
/// The counter's lowest bit says that the consumer went idle, having found the queue empty;
/// a push that draws a position with it set clears it and wakes the consumer. A push thus
/// costs one atomic addition and no fence, and a second one once per wake-up. A push that
/// clears the bit after the consumer woke and went idle again leaves it idle unmarked; the
/// wake-up that push then gives lets the consumer mark itself again.
///
/// Up to `kCapacity` items may wait; a push beyond that waits for the consumer.
template <class T>
class DCIMPSCQueue {
public:
    static constexpr uint64_t kCapacity = uint64_t{1} << 23;

    /// Why a take ended.
    enum class End {
        Limit,    ///< it took as many items as it was allowed
        Empty,    ///< the consumer is now idle: the next push answers that it is to be woken
        Stalled,  ///< the next item is still being pushed: take again soon
    };

    DCIMPSCQueue() : blocks_(new std::atomic<Block*>[kBlockRing]) {
        for (size_t i = 0; i < kBlockRing; ++i) blocks_[i].store(nullptr, std::memory_order_relaxed);
    }
    DCIMPSCQueue(const DCIMPSCQueue&) = delete;
    DCIMPSCQueue& operator=(const DCIMPSCQueue&) = delete;

    /// Only once no thread pushes or takes any more.
    ~DCIMPSCQueue() {
        for (size_t i = 0; i < kBlockRing; ++i) delete blocks_[i].load(std::memory_order_relaxed);
        for (auto& spare : spares_) delete spare.load(std::memory_order_relaxed);
    }

    /// Any thread. Answers whether the caller is to wake the consumer.
    bool push(T value) {
        const uint64_t drawn = next_.fetch_add(kPositionStep, std::memory_order_relaxed);
        const uint64_t position = drawn / kPositionStep;
        const uint64_t blockNumber = position / kSlotsPerBlock;
        while (blockNumber - consumerBlock_.load(std::memory_order_acquire) >= kBlockRing) std::this_thread::yield();
        Slot& slot = blockFor(blockNumber)->slots[position % kSlotsPerBlock];
        slot.value.emplace(std::move(value));
        slot.ready.store(true, std::memory_order_release);
        if ((drawn & kIdleBit) == 0) return false;
        // Posts that follow this one until the consumer wakes need not wake it again: each
        // wake-up is a system call.
        next_.fetch_and(~kIdleBit, std::memory_order_relaxed);
        return true;
    }

    /// The consumer only: moves the oldest items, at most `limit`, to the end of `into`. Having
    /// found no more, it goes idle only if `mayGoIdle`; otherwise it stays awake, answers
    /// Stalled and must take again.
    std::pair<size_t, End> take(std::vector<T>& into, size_t limit, bool mayGoIdle = true) {
        if (idle_) {
            next_.fetch_and(~kIdleBit, std::memory_order_relaxed);
            idle_ = false;
        }
        size_t taken = 0;
        for (; taken < limit; ++taken) {
            Slot* slot = readySlot();
            if (!slot) return {taken, mayGoIdle && goIdle() ? End::Empty : End::Stalled};
            into.push_back(std::move(*slot->value));
            slot->value.reset();
            slot->ready.store(false, std::memory_order_relaxed);
            if (++taken_ % kSlotsPerBlock == 0) retireBlock();
        }
        return {taken, End::Limit};
    }

private:
    static constexpr uint64_t kIdleBit = 1;
    static constexpr uint64_t kPositionStep = 2;
    static constexpr uint64_t kSlotsPerBlock = 1024;
    static constexpr uint64_t kBlockRing = kCapacity / kSlotsPerBlock;

    struct Slot {
        std::atomic<bool> ready{false};
        std::optional<T> value;
    };
    struct Block {
        Slot slots[kSlotsPerBlock];
    };

    // The block of `blockNumber`, made by whichever producer needs it first. Its ring entry
    // cannot hold an older block: the wait in `push` keeps producers within the ring's reach.
    Block* blockFor(uint64_t blockNumber) {
        std::atomic<Block*>& entry = blocks_[blockNumber % kBlockRing];
        Block* block = entry.load(std::memory_order_acquire);
        if (block) return block;
        Block* fresh = takeSpare();
        if (entry.compare_exchange_strong(block, fresh)) return fresh;
        keepSpare(fresh);
        return block;
    }

    Slot* readySlot() {
        Block* block = blocks_[(taken_ / kSlotsPerBlock) % kBlockRing].load(std::memory_order_acquire);
        if (!block) return nullptr;
        Slot& slot = block->slots[taken_ % kSlotsPerBlock];
        return slot.ready.load(std::memory_order_acquire) ? &slot : nullptr;
    }

    // Marks the consumer idle when no position past those taken has been drawn; otherwise a
    // push is half-way and the consumer must look again. It does not wait for that push: a
    // consumer that waits keeps pace with a single producer item by item, and every item's
    // slot then moves between their caches while the producer writes it. The counter is read
    // before it is written for the same reason.
    bool goIdle() {
        uint64_t expected = taken_ * kPositionStep;
        if (next_.load(std::memory_order_relaxed) != expected) return false;
        idle_ = next_.compare_exchange_strong(expected, expected | kIdleBit, std::memory_order_relaxed);
        return idle_;
    }

    // Every slot of the block just finished has been taken and left empty, so it may serve
    // again as it is.
    void retireBlock() {
        const uint64_t finished = taken_ / kSlotsPerBlock - 1;
        keepSpare(blocks_[finished % kBlockRing].exchange(nullptr, std::memory_order_acq_rel));
        consumerBlock_.store(finished + 1, std::memory_order_release);
    }

    // A few empty blocks are kept for the producers: a consumer that falls behind and catches
    // up again would otherwise have the allocator map and unmap fresh pages all the while.
    // Each spare has a place of its own, taken and filled by exchange, so no block is ever
    // mistaken for another that left and came back.
    Block* takeSpare() {
        for (auto& spare : spares_) {
            if (spare.load(std::memory_order_relaxed)) {
                if (Block* block = spare.exchange(nullptr, std::memory_order_acquire)) return block;
            }
        }
        return new Block;
    }

    void keepSpare(Block* block) {
        for (auto& spare : spares_) {
            Block* empty = nullptr;
            if (spare.compare_exchange_strong(empty, block, std::memory_order_release, std::memory_order_relaxed)) return;
        }
        delete block;
    }

    alignas(64) std::atomic<uint64_t> next_{kIdleBit};    // the next position, and the idle bit
    alignas(64) std::atomic<uint64_t> consumerBlock_{0};  // the block the consumer is in
    std::unique_ptr<std::atomic<Block*>[]> blocks_;
    std::atomic<Block*> spares_[16] = {};
    alignas(64) uint64_t taken_ = 0;  // the consumer's: positions taken so far
    bool idle_ = true;                // the consumer's: whether it set the idle bit
};
