#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>

/// An unbounded first-in-first-out queue that many threads push to without a lock and one
/// thread pops from (after Dmitry Vyukov's node-based queue). A push is one atomic exchange;
/// the exchanges fix one global order, which is also each producer's own order, and pops
/// follow it.
///
/// A pop may answer empty while a producer is between its exchange and its link; that
/// producer's item, and any pushed after it, become visible when the link is made, so a
/// consumer woken by each producer after its push never loses an item.
///
/// Nodes are recycled: the consumer stacks the nodes it is done with, and a producer that
/// runs out takes the whole stack into a cache of its own thread. Handing nodes between
/// threads through the allocator costs more than the rest of a push and pop together. At most
/// `kSpareNodes` wait on the stack, so a burst leaves no lasting footprint.
template <class T>
class DCIMPSCQueue {
public:
    DCIMPSCQueue() : head_(new Node), tail_(head_.load(std::memory_order_relaxed)) {}
    DCIMPSCQueue(const DCIMPSCQueue&) = delete;
    DCIMPSCQueue& operator=(const DCIMPSCQueue&) = delete;

    ~DCIMPSCQueue() {
        while (pop()) {
        }
        delete tail_;
        deleteChain(spares_.exchange(nullptr, std::memory_order_acquire));
    }

    /// Any thread.
    void push(T value) {
        Node* node = takeNode();
        node->value.emplace(std::move(value));
        Node* previous = head_.exchange(node, std::memory_order_acq_rel);
        previous->next.store(node, std::memory_order_release);
    }

    /// The consumer thread only.
    std::optional<T> pop() {
        Node* next = tail_->next.load(std::memory_order_acquire);
        if (!next) return std::nullopt;
        // The nodes were written on other cores; fetching the one after this early hides
        // most of the next pop's wait for memory.
        if (Node* after = next->next.load(std::memory_order_relaxed)) __builtin_prefetch(after, 1);
        // `next` becomes the new empty front node once its value has been taken.
        // Every node after the front holds a value: it was pushed with one.
        std::optional<T> value(std::in_place, std::move(*next->value));
        next->value.reset();
        giveBack(tail_);
        tail_ = next;
        return value;
    }

private:
    static constexpr size_t kSpareNodes = 4096;

    struct Node {
        std::atomic<Node*> next{nullptr};
        std::optional<T> value;
    };

    // A producer thread's nodes, shared by every queue of this item type.
    struct Cache {
        Node* first = nullptr;
        ~Cache() { deleteChain(first); }
    };

    static void deleteChain(Node* node) {
        while (node) {
            Node* next = node->next.load(std::memory_order_relaxed);
            delete node;
            node = next;
        }
    }

    Node* takeNode() {
        thread_local Cache cache;
        if (!cache.first) cache.first = spares_.exchange(nullptr, std::memory_order_acquire);
        Node* node = cache.first;
        if (!node) return new Node;
        cache.first = node->next.load(std::memory_order_relaxed);
        node->next.store(nullptr, std::memory_order_relaxed);
        return node;
    }

    // Producers only ever take the whole stack, and only this consumer pushes, so the stack
    // cannot change back to a value read here (no ABA).
    void giveBack(Node* node) {
        Node* first = spares_.load(std::memory_order_relaxed);
        if (!first) sparesStacked_ = 0;
        if (sparesStacked_ >= kSpareNodes) {
            delete node;
            return;
        }
        do {
            node->next.store(first, std::memory_order_relaxed);
        } while (!spares_.compare_exchange_weak(first, node, std::memory_order_release, std::memory_order_relaxed));
        ++sparesStacked_;
    }

    alignas(64) std::atomic<Node*> head_;  // producers' end
    alignas(64) Node* tail_;               // consumer's end: an empty front node
    size_t sparesStacked_ = 0;             // since the stack was last seen empty; the consumer's
    alignas(64) std::atomic<Node*> spares_{nullptr};
};
