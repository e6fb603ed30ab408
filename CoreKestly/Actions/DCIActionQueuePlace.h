#pragma once

#include <cstddef>
#include <memory>

class DCIActionQueueHeap;

/// Where one action waits in one queue. The action keeps its places, so that a change of its
/// priority moves it in those queues, at O(log n) each, and costs the others nothing. The
/// queue's lock guards `position`.
class DCIActionQueuePlace {
public:
    static constexpr size_t kLeft = static_cast<size_t>(-1);

    explicit DCIActionQueuePlace(std::shared_ptr<DCIActionQueueHeap> heap) : queue(heap.get()), heap_(heap) {}

    /// Moves the action to where its current priority puts it; nothing once it has left.
    void followPriority() const;

    const DCIActionQueueHeap* const queue;  // identity only: the queue may be gone
    size_t position = kLeft;

private:
    std::weak_ptr<DCIActionQueueHeap> heap_;
};
