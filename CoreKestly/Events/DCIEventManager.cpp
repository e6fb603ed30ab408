#include "CoreKestly/Events/DCIEventManager.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Platform/RunLoop/DCIMPSCQueueInternal.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

namespace {

// The bus's transport (the queue and the main loop's source) is made once and kept for the
// life of the process, so a worker that posts while the last listener is being removed
// never touches freed memory. What comes and goes with the listeners is a *generation*:
// every registration period gets a new number, each queued event carries the number that was
// live when it was posted, and the drain delivers only events of the live generation. Events
// of a released generation are thus dropped, as the bus's contract says, without any lock
// on the posting path.
class EventBus {
public:
    static EventBus& shared() {
        // Deliberately never destroyed: threads may still post while the process exits.
        static EventBus* const bus = new EventBus;
        return *bus;
    }

    void post(std::shared_ptr<DCIEvent> event) {
        const uint64_t generation = liveGeneration_.load(std::memory_order_acquire);
        if (generation == kNoGeneration || !event) return;
        // Only a post that finds the drain idle wakes the main loop; the others' events are
        // taken by a drain that is running or woken already.
        if (queue_.push(QueuedEvent{std::move(event), generation})) source_->signal();
    }

    void add(const std::shared_ptr<DCIObject>& object) {
        std::lock_guard lock(mutex_);
        if (liveGeneration_.load(std::memory_order_relaxed) == kNoGeneration) beginGeneration();
        auto listener = std::dynamic_pointer_cast<DCIEventListener>(object);
        if (!listener || indexOf(listener) != kNotFound) return;
        listeners_.push_back(std::move(listener));
        publishListeners();
    }

    void remove(const std::shared_ptr<DCIObject>& object) {
        std::vector<QueuedEvent> released;  // destroyed unlocked: events own actions and trees
        std::lock_guard lock(mutex_);
        if (liveGeneration_.load(std::memory_order_relaxed) == kNoGeneration) return;
        if (auto listener = std::dynamic_pointer_cast<DCIEventListener>(object)) {
            if (const size_t index = indexOf(listener); index != kNotFound)
                listeners_.erase(listeners_.begin() + static_cast<std::ptrdiff_t>(index));
        }
        std::erase_if(listeners_, [](const auto& entry) { return entry.expired(); });
        publishListeners();
        if (!listeners_.empty()) return;
        liveGeneration_.store(kNoGeneration, std::memory_order_release);
        // Nothing queued can be delivered any more; waiting for the main loop to drain it
        // would keep it in memory for as long as that loop is busy or not run at all.
        std::lock_guard consumer(consumerMutex_);
        // An event still being posted is left behind; a drain will find it and drop it.
        if (queue_.take(released, SIZE_MAX).second == Queue::End::Stalled) source_->signal();
    }

    bool exists() const { return liveGeneration_.load(std::memory_order_acquire) != kNoGeneration; }

private:
    struct QueuedEvent {
        std::shared_ptr<DCIEvent> event;
        uint64_t generation;
    };
    using Queue = DCIMPSCQueue<QueuedEvent>;
    using Listeners = std::vector<std::weak_ptr<DCIEventListener>>;
    static constexpr uint64_t kNoGeneration = 0;
    static constexpr size_t kNotFound = static_cast<size_t>(-1);
    static constexpr size_t kEventsPerDrain = 4096;
    static constexpr size_t kEventsPerTake = 256;

    // Called with the mutex held.
    void beginGeneration() {
        if (!source_) source_ = DCIRunLoop::main().addSignalSource([this] { drain(); });
        liveGeneration_.store(++lastGeneration_, std::memory_order_release);
    }

    // Called with the mutex held. A listener is an object, not its owner: two listeners
    // inside one object (aliasing pointers) are two. A destroyed one matches nothing, so a new
    // listener at its address is not mistaken for it.
    size_t indexOf(const std::shared_ptr<DCIEventListener>& listener) const {
        for (size_t i = 0; i < listeners_.size(); ++i) {
            if (listeners_[i].lock().get() == listener.get()) return i;
        }
        return kNotFound;
    }

    // Called with the mutex held, after every change of the listeners. The drain keeps the
    // copy it has until the version moves, so delivering an event takes no lock and copies
    // no list; the copy holds listeners weakly, as the registration does.
    void publishListeners() {
        published_ = std::make_shared<const Listeners>(listeners_);
        listenersVersion_.fetch_add(1, std::memory_order_release);
    }

    // The published listeners, unless `held` is already the current copy.
    void refresh(std::shared_ptr<const Listeners>& held, uint64_t& heldVersion) {
        if (held && listenersVersion_.load(std::memory_order_acquire) == heldVersion) return;
        std::lock_guard lock(mutex_);
        held = published_;
        heldVersion = listenersVersion_.load(std::memory_order_relaxed);
    }

    // On the main thread. Delivers the queued events in order, including those posted by
    // listeners while it runs; each event reaches all its listeners before the next one.
    // Producers that post as fast as the listeners consume would keep one drain going
    // for ever and starve the rest of the main loop, so a drain hands the loop back after a
    // batch and signals itself to go on.
    //
    // A drain that has delivered events does not go idle when it runs out: it looks again on
    // the loop's next pass and goes idle only if that pass finds nothing. Under a stream of
    // posts the next events are there by then, so the producers keep posting without the
    // system call that waking an idle drain costs them; the main thread pays one pass instead.
    void drain() {
        std::shared_ptr<const Listeners> listeners;
        uint64_t listenersVersion = 0;
        std::vector<QueuedEvent> batch;  // not a member: a listener may run the loop again
        bool delivered = false;
        for (size_t budget = kEventsPerDrain; budget > 0;) {
            const size_t limit = std::min(budget, kEventsPerTake);
            auto [taken, end] = take(batch, limit, false);
            if (taken == 0 && !delivered) std::tie(taken, end) = take(batch, limit, true);
            delivered = delivered || taken > 0;
            for (auto& queued : batch) {
                // An event of a released generation reaches nobody, not even a later bus.
                if (queued.generation == liveGeneration_.load(std::memory_order_acquire)) {
                    refresh(listeners, listenersVersion);
                    for (const auto& entry : *listeners) {
                        if (const auto listener = entry.lock()) deliver(*listener, queued.event);
                    }
                }
                queued.event.reset();  // events own actions and trees: none outlives its turn
            }
            batch.clear();
            // Once the queue was found empty, the next post wakes the loop, also one posted
            // while the batch was delivered: looking again would take its event and leave the
            // loop a wake-up with nothing to do. A post caught half-way wakes nobody.
            if (end == Queue::End::Empty) return;
            if (end == Queue::End::Stalled) break;
            budget -= taken;
        }
        source_->signal();
    }

    // The lock is held only while events are taken: a listener may remove the last listener,
    // which empties the queue, while they are delivered.
    std::pair<size_t, Queue::End> take(std::vector<QueuedEvent>& batch, size_t limit, bool mayGoIdle) {
        std::lock_guard consumer(consumerMutex_);
        return queue_.take(batch, limit, mayGoIdle);
    }

    static void deliver(DCIEventListener& listener, const std::shared_ptr<DCIEvent>& event) {
        try {
            listener.handleEvent(event);
        } catch (const std::exception& exception) {
            DCLogError("Listener %@ threw while handling event %@: %s", listener, *event, exception.what());
        } catch (...) {
            DCLogError("Listener %@ threw while handling event %@", listener, *event);
        }
    }

    Queue queue_;
    // The queue has one consumer at a time: the drain on the main thread, or the removal of
    // the last listener on any thread. Posting never takes it.
    std::mutex consumerMutex_;
    // Read by every post: kept off the line of the consumer's mutex, which every take writes.
    alignas(64) std::atomic<uint64_t> liveGeneration_{kNoGeneration};
    std::unique_ptr<DCIRunLoopSource> source_;
    alignas(64) std::atomic<uint64_t> listenersVersion_{0};

    std::mutex mutex_;  // guards the listeners, the generation counter and the source's creation
    uint64_t lastGeneration_ = kNoGeneration;
    Listeners listeners_;
    std::shared_ptr<const Listeners> published_ = std::make_shared<const Listeners>();
};

}  // namespace

void DCIEventManager::addListener(const std::shared_ptr<DCIObject>& object) { EventBus::shared().add(object); }

void DCIEventManager::removeListener(const std::shared_ptr<DCIObject>& object) { EventBus::shared().remove(object); }

void DCIEventManager::postEvent(std::shared_ptr<DCIEvent> event) { EventBus::shared().post(std::move(event)); }

bool DCIEventManager::hasSharedInstance() { return EventBus::shared().exists(); }
