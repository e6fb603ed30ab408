#pragma once

#include <atomic>
#include <optional>
#include <utility>

/// An unbounded first-in-first-out queue that many threads push to without a lock and one
/// thread pops from (after Dmitry Vyukov's node-based queue). A push is one allocation and
/// one atomic exchange; the exchanges fix one global order, which is also each producer's
/// own order, and pops follow it.
///
/// A pop may answer empty while a producer is between its exchange and its link; that
/// producer's item, and any pushed after it, become visible when the link is made, so a
/// consumer woken by each producer after its push never loses an item.
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
    }

    /// Any thread.
    void push(T value) {
        Node* node = new Node;
        node->value.emplace(std::move(value));
        Node* previous = head_.exchange(node, std::memory_order_acq_rel);
        previous->next.store(node, std::memory_order_release);
    }

    /// The consumer thread only.
    std::optional<T> pop() {
        Node* next = tail_->next.load(std::memory_order_acquire);
        if (!next) return std::nullopt;
        // `next` becomes the new empty front node once its value has been taken.
        std::optional<T> value = std::move(next->value);
        next->value.reset();
        delete tail_;
        tail_ = next;
        return value;
    }

private:
    struct Node {
        std::atomic<Node*> next{nullptr};
        std::optional<T> value;
    };

    alignas(64) std::atomic<Node*> head_;  // producers' end
    alignas(64) Node* tail_;               // consumer's end: an empty front node
};
