#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <memory>

/// The host's side of the event bus. Listeners are called on the main thread only.
class KESTLY_EXPORT DCIEventListener : public virtual DCIObject {
public:
    /// Called on the main thread for every event posted while the listener is registered.
    /// An exception thrown from here is logged and does not stop delivery to the others.
    virtual void handleEvent(const std::shared_ptr<DCIEvent>& event) = 0;
};

/// The process-wide event bus between the library and its host. Any thread posts events;
/// the bus queues them without a lock and delivers them, in posting order, to every
/// registered listener on the main thread when `DCIRunLoop::main()` runs.
///
/// The bus exists only while at least one listener is registered: before the first
/// `addListener` and after the last `removeListener`, posted events are dropped, and events
/// still queued when the last listener leaves are released at once, never delivered, not even
/// to a listener added later.
///
/// Listeners are told apart by address: two listeners that share an owner (aliasing pointers
/// into one object) are two registrations.
///
/// A listener may run the main loop again (a modal dialog): the nested loop goes on
/// delivering, the current event to the listeners after this one and then the events after
/// it, each to each listener once, and the listener's own call resumes when it returns.
///
/// Registration does not keep a listener alive: a listener unregisters itself before it is
/// destroyed (one destroyed while registered is skipped from then on). A listener removed
/// while an event is being delivered still receives that event and none after it; one added
/// during delivery receives the events after the current one.
class KESTLY_EXPORT DCIEventManager {
public:
    DCIEventManager() = delete;

    /// Registers `object` when it is a `DCIEventListener`; any other object is silently not
    /// registered. Registering twice leaves one registration. Creates the bus if it does not
    /// exist, whether or not the object was accepted.
    static void addListener(const std::shared_ptr<DCIObject>& object);
    /// Unregisters `object`; when no listener is left, the bus is released.
    static void removeListener(const std::shared_ptr<DCIObject>& object);
    /// Queues the event for delivery on the main thread, or drops it when the bus does not
    /// exist. Any thread; never waits for the main thread, unless more than 8,388,608 events
    /// are waiting for it.
    static void postEvent(std::shared_ptr<DCIEvent> event);

    /// Whether the bus exists now.
    static bool hasSharedInstance();
};
