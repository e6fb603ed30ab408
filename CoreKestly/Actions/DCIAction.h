#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/Values/DCIValue.h"

#include <atomic>
#include <concepts>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// Category 0 holds the actions the library makes and understands; other categories are free
/// for the host.
enum DCIActionCategory : uint64_t { DCIActionCategoryCommon = 0 };

/// The library's action types, all of category 0, with the context each starts with.
enum DCIActionType : uint64_t {
    DCIActionTypeMoveFile = 1,         ///< kDCIFileManagerMoveFrom, kDCIFileManagerMoveTo
    DCIActionTypeCreateDirectory = 2,  ///< kDCIFileManagerCreatePath
    DCIActionTypeCopyFile = 3,         ///< kDCIFileManagerMoveFrom, kDCIFileManagerMoveTo
    DCIActionTypeDownload = 5,         ///< kDCIDownloaderRequestKey, the size keys, maybe kDCIDownloaderFilePathKey
};

/// Where an action stands. Any status may follow any other, and numbers outside this list
/// are stored and announced like these.
enum DCIActionStatus : int64_t {
    DCIActionStatusUndefined = 0,  ///< every action's first status
    DCIActionStatusRestarted = 1,  ///< for the host; the library never sets it
    DCIActionStatusPending = 2,    ///< waiting in a queue
    DCIActionStatusRunning = 3,    ///< taken and being carried out
    DCIActionStatusPaused = 4,     ///< set by the host; workers neither start nor go on with it
    DCIActionStatusCanceled = 5,   ///< as paused
    DCIActionStatusFailed = 6,     ///< usually with a DCIError under kDCIError
    DCIActionStatusCompleted = 7,  ///< done
};

/// The status's name as above without its prefix ("Pending"); "" for a number outside the list.
KESTLY_EXPORT std::string_view DCIActionStatusText(int64_t status);

/// One unit of work done later or elsewhere: a file move, copy or directory creation, a
/// download, or anything of the host's. It carries what the work needs in its context, a
/// status that workers advance and that is announced as `DCIEventTypeActionStatusChanged` at
/// every change, a priority and a creation time by which queues order it, and an optional
/// place in a tree of actions, so that a whole group can change status or priority at once.
///
/// Ownership in the tree: a child owns its parent, a parent holds its children weakly. A
/// parent therefore lives as long as any of its descendants, and an action nobody else holds
/// goes away even when it has a parent, leaving its parent's children as it goes.
///
/// Threads: any thread may use an action. The context has its own reader-writer lock; status
/// and priority are atomic values, though `changeStatus` tests and sets without a lock, so two
/// threads changing one action at once may both announce. Tree changes (`setParent`) must
/// not run concurrently with each other or with the recursive operations on the same tree.
class DCIActionQueueHeap;
class DCIActionQueuePlace;

class KESTLY_EXPORT DCIAction : public DCIObject, public std::enable_shared_from_this<DCIAction> {
public:
    /// An action of category 0 and type 0.
    static std::shared_ptr<DCIAction> init();
    static std::shared_ptr<DCIAction> initWithCategory(uint64_t category, uint64_t type);
    /// Leaves the parent's children.
    ~DCIAction() override;

    DCIAction(const DCIAction&) = delete;
    DCIAction& operator=(const DCIAction&) = delete;

    // Classification.

    uint64_t category() const { return category_; }
    uint64_t type() const { return type_; }
    /// `type()` for a common action, 0 (no common type) for any other category.
    uint64_t commonType() const { return category_ == DCIActionCategoryCommon ? type_ : 0; }
    bool isOfCategory(uint64_t category, uint64_t type) const;
    /// Whether this action or one of its ancestors is of the category and type.
    bool isPartOfCategory(uint64_t category, uint64_t type) const;
    bool isCommonActionOfType(uint64_t type) const { return isOfCategory(DCIActionCategoryCommon, type); }
    bool isPartOfCommonActionOfType(uint64_t type) const { return isPartOfCategory(DCIActionCategoryCommon, type); }

    /// The moment of creation.
    const DCIDate& timestamp() const { return timestamp_; }

    // Context. A missing object or key is nothing (std::nullopt); the null value
    // (`DCINull()`) is an object like any other.

    /// The object stored under `key`, or nothing.
    std::optional<DCIValue> contextObjectForKey(std::optional<std::string_view> key) const;
    /// Stores `object` under `key`, replacing what was there. A missing object is refused with
    /// the error log line "Not setting nil object for key <key>"; a missing key is ignored
    /// without a word.
    void setContextObject(std::optional<DCIValue> object, std::optional<std::string_view> key);
    /// The same for a library or host object, a null pointer being a missing object.
    template <std::derived_from<DCIObject> T>
    void setContextObject(const std::shared_ptr<T>& object, std::optional<std::string_view> key) {
        setContextObject(object ? std::optional<DCIValue>(object) : std::nullopt, key);
    }
    /// The same for C text; a null pointer, `nullptr` included, is a missing object.
    void setContextObject(const char* object, std::optional<std::string_view> key) {
        setContextObject(object ? std::optional<DCIValue>(object) : std::nullopt, key);
    }
    /// Copies every entry in, replacing entries under the same keys.
    void addContextEntriesFromDictionary(const DCIDictionary& entries);
    void removeContextObjectForKey(std::optional<std::string_view> key);

    // Status.

    int64_t status() const { return status_.load(); }
    /// Sets the status and, when it differs from the current one, posts
    /// `DCIEventTypeActionStatusChanged` with both values and this action, without waiting for
    /// its delivery. Any change but one to `DCIActionStatusFailed` also drops `kDCIError`.
    void changeStatus(int64_t status);
    /// Changes the status of every descendant, deepest first, then this action's own, so each
    /// child announces its change before its parent.
    void recursivelyChangeStatus(int64_t status);

    // Priority: queues hand out the smallest value first.

    uint64_t priority() const { return priority_.load(); }
    void setPriority(uint64_t priority);
    /// Sets this action's priority, then that of every descendant.
    void recursivelySetPriority(uint64_t priority);
    /// Moves this action's priority by `change`, then that of every descendant. Each action
    /// stops at 0 going down and at the largest value going up.
    void recursivelyIncrementPriority(int64_t change);

    // Tree.

    std::shared_ptr<DCIAction> parent() const { return parent_; }
    /// Moves this action under `parent` (nothing: no parent), leaving the old parent's children.
    /// Nothing prevents a cycle.
    void setParent(std::shared_ptr<DCIAction> parent);
    /// The current children, in no particular order.
    std::vector<std::shared_ptr<DCIAction>> children() const;
    /// The topmost ancestor, or this action when it has no parent.
    std::shared_ptr<DCIAction> root();

    /// 1 when this action's priority value is lower than `other`'s, or the values are equal and
    /// `other` was created earlier; -1 otherwise. An ascending sort thus puts the largest values
    /// first, the oldest first within one value, and the action a queue hands out next last.
    /// Never 0: equal priorities and timestamps give -1 both ways, so it is no strict ordering.
    int64_t compareTo(const DCIAction& other) const;

    /// "Action\n\tCategory = <category> - Type = <type>\n\tStatus: <text>\n\tContext: <context>",
    /// the text empty for a status outside 0 to 7.
    std::string description() const override;

private:
    friend class DCIActionQueue;

    DCIAction(uint64_t category, uint64_t type);

    /// Moves this action in every queue it waits in to where its priority now puts it.
    void followPriorityInQueues() const;
    /// Whether this action waits in `queue`.
    bool waitsIn(const DCIActionQueueHeap* queue) const;
    /// Called by a queue with its lock held when this action starts or stops waiting there.
    void enterQueue(std::shared_ptr<DCIActionQueuePlace> place);
    void leaveQueue(const DCIActionQueuePlace& place);

    const uint64_t category_;
    const uint64_t type_;
    const DCIDate timestamp_;
    /// Counts creations, so that of two actions created in the same clock tick the later
    /// still counts as the newer.
    const uint64_t creationSequence_;
    std::atomic<uint64_t> priority_{1};
    std::atomic<int64_t> status_{DCIActionStatusUndefined};
    /// The number of queues the action waits in: a priority change looks no further when 0.
    std::atomic<uint64_t> waitingCount_{0};
    mutable std::mutex placesMutex_;  // taken after a queue's lock, never before
    std::vector<std::shared_ptr<DCIActionQueuePlace>> places_;

    std::shared_ptr<DCIAction> parent_;
    // Children leave from their destructors, which run on whatever thread drops them last.
    mutable std::mutex childrenMutex_;
    std::unordered_map<const DCIAction*, std::weak_ptr<DCIAction>> children_;

    mutable std::shared_mutex contextLock_;
    DCIDictionary context_;
};
