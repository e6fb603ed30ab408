#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/RunLoop/DCIAtomicSharedPtr.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/Values/DCIValue.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

class DCIAction;

/// Category 0 holds the library's own events; other categories are free for the host.
enum DCIEventCategory : uint64_t { DCIEventCategoryCommon = 0 };

/// The library's event types, all of category 0. Each comment names the context keys.
enum DCIEventType : uint64_t {
    DCIEventTypeFileManagerReady = 1,       ///< the watched tree is built and hashed
    DCIEventTypeFileManagerStopped = 2,     ///< the watcher has ended
    DCIEventTypeFileAdded = 3,              ///< kDCIFileObject
    DCIEventTypeFolderAdded = 4,            ///< kDCIFolderObject
    DCIEventTypeFileRemoved = 5,            ///< kDCIOldFileObject
    DCIEventTypeFolderRemoved = 6,          ///< kDCIOldFolderObject
    DCIEventTypeFileMoved = 7,              ///< kDCIFileObject, kDCIOldFileObject
    DCIEventTypeFolderMoved = 8,            ///< kDCIFolderObject, kDCIOldFolderObject
    DCIEventTypeFileModified = 9,           ///< kDCIFileObject
    DCIEventTypeRootFolderRemoved = 10,     ///< the watched root is gone
    DCIEventTypeActionStatusChanged = 11,   ///< kDCIActionStatusKey, kDCIActionPreviousStatusKey; the action
    DCIEventTypeDownloaderStarted = 12,     ///< kDCIDownloaderDownloaderKey
    DCIEventTypeDownloaderStopped = 13,     ///< kDCIDownloaderDownloaderKey
    /// The download action; the counts of this tick: kDCIDownloaderCurrentDownloadSizeKey, the
    /// bytes sent and received so far, and kDCIDownloaderTotalDownloadSizeKey, those expected,
    /// absent while the server has not said.
    DCIEventTypeDownloadProgress = 14,
    /// How far a run's first scan has come, at most four times a second while it hashes (see
    /// `DCIFileManager::firstScanProgress`): kDCIFileManagerScanFilesKey and
    /// kDCIFileManagerScanBytesKey, the files of interest found and their bytes;
    /// kDCIFileManagerScanFilesHashedKey and kDCIFileManagerScanBytesHashedKey, those hashed.
    DCIEventTypeFirstScanProgress = 15,
};

/// Something that happened, told to the host's listeners on the main thread. The poster
/// fills the action and context before posting; after that nobody changes the event.
/// The action, context and timestamp may be read from any thread.
class KESTLY_EXPORT DCIEvent : public DCIObject {
public:
    /// An event of category 0 with the given type, stamped now. Any number is accepted.
    static std::shared_ptr<DCIEvent> commonEventWithType(uint64_t type);
    /// The designated initialiser: stores both numbers and stamps the event now.
    static std::shared_ptr<DCIEvent> initWithCategory(uint64_t category, uint64_t type);
    /// An event of category 0, type 0 and no timestamp.
    static std::shared_ptr<DCIEvent> init();

    uint64_t category() const { return category_; }
    uint64_t type() const { return type_; }
    /// `type()` for a common event, 0 (no common type) for any other category, so listeners
    /// can switch on it without testing the category first.
    uint64_t commonType() const { return category_ == DCIEventCategoryCommon ? type_ : 0; }
    bool isCommonEventOfType(uint64_t type) const { return category_ == DCIEventCategoryCommon && type_ == type; }

    /// The moment of initialisation; nothing for an event made with `init()`.
    std::optional<DCIDate> timestamp() const { return timestamp_; }

    std::shared_ptr<DCIAction> action() const { return action_.load(); }
    void setAction(std::shared_ptr<DCIAction> action) { action_.store(std::move(action)); }

    /// The immutable context dictionary, or nullptr when the event has none.
    std::shared_ptr<const DCIDictionary> context() const { return context_.load(); }
    void setContext(DCIDictionary context);
    void setContext(std::shared_ptr<const DCIDictionary> context) { context_.store(std::move(context)); }
    /// The context value under `key`, or nothing.
    std::optional<DCIValue> contextValue(std::string_view key) const;

    std::string description() const override;

private:
    // Lets the initialisers make an event and its reference count in one allocation, while
    // nobody else can call the constructor.
    struct Key {
        explicit Key() = default;
    };

public:
    DCIEvent(Key, uint64_t category, uint64_t type, std::optional<DCIDate> timestamp)
        : category_(category), type_(type), timestamp_(timestamp) {}

private:

    const uint64_t category_;
    const uint64_t type_;
    const std::optional<DCIDate> timestamp_;
    DCIAtomicSharedPtr<DCIAction> action_;
    DCIAtomicSharedPtr<const DCIDictionary> context_;
};
