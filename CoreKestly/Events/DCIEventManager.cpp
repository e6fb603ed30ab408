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
        released.swap(taken_);
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

    // The published listeners; the copy held is replaced only when they changed.
    std::shared_ptr<const Listeners> currentListeners() {
        if (heldListeners_ && listenersVersion_.load(std::memory_order_acquire) == heldVersion_) return heldListeners_;
        std::lock_guard lock(mutex_);
        heldListeners_ = published_;
        heldVersion_ = listenersVersion_.load(std::memory_order_relaxed);
        return heldListeners_;
    }

    // On the main thread. Delivers the queued events in order, including those posted by
    // listeners while it runs; each event reaches all its listeners before the next one.
    // Producers that post as fast as the listeners consume would keep one drain going
    // for ever and starve the rest of the main loop, so a drain hands the loop back after a
    // batch and signals itself to go on.
    //
    // A listener may run the loop again, as a modal dialog does. So where delivery has got to
    // is kept here rather than on the drain's stack, and a drain signals itself before it
    // delivers: the nested loop then runs a nested drain, which goes on from the next listener
    // of the current event, and the outer drain, once its listener returns, goes on from
    // wherever the nested one stopped. Every listener gets every event once, in order, however
    // deep the nesting.
    //
    // That signal also keeps a drain that has delivered events from going idle when it runs
    // out: the loop's next pass looks again, and only a drain that delivers nothing goes idle.
    // Under a stream of posts the next events are there by then, so the producers keep posting
    // without the system call that waking an idle drain costs them; the main thread pays one
    // pass instead.
    void drain() {
        bool delivering = false;
        for (size_t budget = kEventsPerDrain; budget > 0; --budget) {
            if (!current_.event && !beginNextEvent(delivering)) return;
            if (!delivering) {
                source_->signal();
                delivering = true;
            }
            deliverCurrentEvent();
        }
        source_->signal();
    }

    // Makes the oldest waiting event of the live generation the current one; false when there
    // is none. Only a drain that has delivered nothing lets the queue go idle.
    bool beginNextEvent(bool delivering) {
        for (;;) {
            QueuedEvent next;  // destroyed unlocked: events own actions and trees
            {
                std::lock_guard consumer(consumerMutex_);
                if (taken_.empty()) {
                    auto [count, end] = queue_.take(taken_, kEventsPerTake, false);
                    if (count == 0 && !delivering) std::tie(count, end) = queue_.take(taken_, kEventsPerTake, true);
                    if (count == 0) {
                        // Once the queue was found empty, the next post wakes the loop; a post
                        // caught half-way wakes nobody, so the drain must look again.
                        if (end == Queue::End::Stalled) source_->signal();
                        return false;
                    }
                    std::reverse(taken_.begin(), taken_.end());  // handed out from the back
                }
                next = std::move(taken_.back());
                taken_.pop_back();
            }
            // An event of a released generation reaches nobody, not even a later bus.
            if (next.generation != liveGeneration_.load(std::memory_order_acquire)) continue;
            current_ = {std::move(next.event), currentListeners(), 0};
            return true;
        }
    }

    // The position moves on before each listener is called, so that a drain nested in that
    // listener never hands it the same event again.
    void deliverCurrentEvent() {
        while (current_.event) {
            if (current_.nextListener == current_.listeners->size()) {
                current_ = {};  // events own actions and trees: none outlives its turn
                return;
            }
            const auto event = current_.event;
            if (const auto listener = (*current_.listeners)[current_.nextListener++].lock()) deliver(*listener, event);
        }
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
    // the last listener on any thread. Posting never takes it. It also guards the events
    // taken from the queue and not yet delivered, oldest last.
    std::mutex consumerMutex_;
    std::vector<QueuedEvent> taken_;
    // Read by every post: kept off the line of the consumer's mutex, which every take writes.
    alignas(64) std::atomic<uint64_t> liveGeneration_{kNoGeneration};
    std::unique_ptr<DCIRunLoopSource> source_;
    alignas(64) std::atomic<uint64_t> listenersVersion_{0};

    std::mutex mutex_;  // guards the listeners, the generation counter and the source's creation
    uint64_t lastGeneration_ = kNoGeneration;
    Listeners listeners_;
    std::shared_ptr<const Listeners> published_ = std::make_shared<const Listeners>();

    // The main thread's: the event being delivered, the listeners it goes to and the next of
    // them; and the copy of the listeners the drain holds, with its version.
    struct Delivery {
        std::shared_ptr<DCIEvent> event;
        std::shared_ptr<const Listeners> listeners;
        size_t nextListener = 0;
    };
    Delivery current_;
    std::shared_ptr<const Listeners> heldListeners_;
    uint64_t heldVersion_ = 0;
};

}  // namespace

void DCIEventManager::addListener(const std::shared_ptr<DCIObject>& object) { EventBus::shared().add(object); }

void DCIEventManager::removeListener(const std::shared_ptr<DCIObject>& object) { EventBus::shared().remove(object); }

void DCIEventManager::postEvent(std::shared_ptr<DCIEvent> event) { EventBus::shared().post(std::move(event)); }

bool DCIEventManager::hasSharedInstance() { return EventBus::shared().exists(); }
