#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/FileSystem/DCIFileStamp.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

class DCISerialExecutor;
class DCISHACacheStore;

/// Computes the service-side sample identifier (`sasID`) of the file at `path`, or nothing.
/// Supplied by the application; called on the thread of the lookup that missed, at most once
/// per miss, after the file was hashed.
using DCISasIDCalculator = std::function<std::optional<std::string>(const std::string& path)>;

/// What the cache knows of one file.
struct DCISHACacheRecord {
    /// The file's stamp, read just before hashing. The record answers for the file only while
    /// its stamp is still this one.
    DCIFileStamp stamp;
    /// The SHA-256 as 64 lower-case hex characters; nothing when hashing failed.
    std::optional<std::string> sha;
    /// The calculator's answer; "" when there is no calculator or it answered nothing.
    std::string sasID;

    /// The `sasID` as the cache answers it: nothing for "".
    std::optional<std::string> answeredSasID() const {
        return sasID.empty() ? std::nullopt : std::optional<std::string>(sasID);
    }

    friend bool operator==(const DCISHACacheRecord&, const DCISHACacheRecord&) = default;
};

/// Remembers, per file path, the file's SHA-256 and `sasID` with the file's stamp (nanosecond
/// modification time, size, inode, device) when they were computed, and keeps them in an
/// SQLite file between runs, so that files whose stamp is unchanged are never read again.
/// Checking a record costs one status read of the file.
///
/// Paths are keys exactly as given: no standardisation. A path without a valid record is
/// answered by identity when another path's record has the file's very stamp (device, inode,
/// size, modification time): a renamed or moved file, or a whole moved folder of them, keeps
/// its hash and `sasID` without a read, and its record moves to the new path (a hard link,
/// both names still the file, shares it). Only regular files (after links) are answered for.
///
/// The cache file holds one row per path (path, "mdate" in seconds and nanoseconds, size,
/// inode, "sha", "sasID", device). A cache file of the earliest format, whose records carry
/// whole seconds only, is emptied with a log line: its files are hashed again; one without
/// devices takes each record's device from the file still at its path. Records are written
/// in SQLite transactions of up to 4,096 (write-ahead log), so a process killed at any
/// moment leaves a file that loads. A file at the cache path that is not such a database is logged, renamed to
/// "<path>.corrupt-<UTC date and time>" and replaced by an empty cache; nothing is deleted.
/// When the file cannot be opened at all (no folder, no permission) the cache works in
/// memory only and says so once in the log.
///
/// Threads: any number of threads may ask at once. A lookup or a change (a new record, a
/// record loaded, a write taking its batch of changes) holds the cache's lock only for the
/// table operation itself: a plain mutex, since a reader-writer lock made two threads hashing
/// small files wake each other on every record, at twice the time of one. A miss hashes the
/// file and calls the calculator without holding any lock, so a long hash never holds back
/// other lookups or changes, and the calculator may call back into the cache. Two threads
/// that miss on one path both hash it; the record stored last wins. Writes to the file run
/// on the cache's own background thread, one at a time, in the order they were scheduled.
class KESTLY_EXPORT DCISHACache : public DCIObject {
public:
    /// A cache on the file at `cachePath` (its folder must exist), with the file's records
    /// loaded and those of files whose stamp changed already dropped.
    /// `sasIDCaclulator` may be empty: every `sasID` is then "".
    static std::shared_ptr<DCISHACache> initWithCachePath(const std::string& cachePath,
                                                          DCISasIDCalculator sasIDCaclulator);

    /// Waits for the writes already scheduled, then writes what is still unsaved, on the
    /// destroying thread.
    ~DCISHACache() override;
    DCISHACache(const DCISHACache&) = delete;
    DCISHACache& operator=(const DCISHACache&) = delete;

    const std::string& shaCachePath() const { return shaCachePath_; }
    /// A copy of the in-memory records, by path.
    std::map<std::string, DCISHACacheRecord> shaCache() const;
    /// Whether the in-memory cache holds changes that no write has been scheduled for yet.
    bool dirty() const;
    DCISasIDCalculator sasIDCalculator() const;
    void setSasIDCalculator(DCISasIDCalculator sasIDCalculator);

    /// The file's SHA-256: the cached one while its stamp is unchanged, else computed at full
    /// speed and stored. Nothing, and no entry, when the path names no regular file (an empty
    /// path included) and, on a miss, when the file may not be read; nothing when it can be
    /// read but not hashed, which stores a record without "sha" so the next lookup tries again.
    std::optional<std::string> SHAForFile(const std::string& path);
    /// As `SHAForFile`, hashing a miss with `KSTSha256ForFileAtPathEco`.
    std::optional<std::string> SHAForFileEco(const std::string& path);
    std::optional<std::string> SHAForFile(const std::string& path, bool eco);

    /// The file's `sasID` from a record valid for its current stamp, else from a new record
    /// (which hashes the file too). Nothing where `SHAForFile` stores no entry, and when the
    /// stored `sasID` is "": the calculator is not asked again until the file changes.
    std::optional<std::string> SasIDForFile(const std::string& path);

    /// The record `SHAForFile` answers from: the cached one while the file's stamp is
    /// unchanged and it holds a hash, else a new one (the file hashed at full speed, the
    /// calculator asked). Its `sha` and `answeredSasID()` are what `SHAForFile` and then
    /// `SasIDForFile` would answer, for the price of one look at the file. Nothing where
    /// `SHAForFile` stores no entry.
    std::optional<DCISHACacheRecord> recordForFile(const std::string& path);
    /// `recordForFile` for a file whose stamp the caller has just read: no second read.
    std::optional<DCISHACacheRecord> recordForFile(const std::string& path, const DCIFileStamp& stamp);

    /// Hashes the file (eco or full speed), asks the calculator and stores the new record
    /// under `path` with `stamp`, replacing any earlier one. Logs "Unable to calcualate SHA
    /// for <path>" when hashing fails. With no stamp it stores nothing and answers nothing.
    std::optional<DCISHACacheRecord> cacheFile(const std::string& path, bool eco,
                                               const std::optional<DCIFileStamp>& stamp);

    /// The modification time of the regular file at `path` in whole seconds, links followed;
    /// nothing when there is none.
    static std::optional<DCIDate> modificationDateForFile(const std::string& path);

    /// Drops the record of `path`, a file that left the watched tree, from memory and, at the
    /// next `persist`, from the file.
    void forgetFile(const std::string& path);
    /// Moves the record of `from` to `to`, for a file renamed there: its stamp still has to
    /// match the file at `to` for the record to answer. Nothing when `from` has no record.
    void moveRecord(const std::string& from, const std::string& to);

    /// Cuts short every hash in progress at its next chunk and makes every later miss answer
    /// nothing, storing no record and logging nothing: for a cache whose run is ending.
    void stopHashing();

    /// Replaces the in-memory records with the file's, keeping only those whose file still has
    /// the recorded stamp. Dropped records are removed from the file at the next
    /// `persist`. Records not yet written when this is called are lost.
    void loadCachedSHAData();

    /// Schedules the write of every change since the last one, returning at once. Does
    /// nothing when nothing changed. The write touches only the changed and dropped records,
    /// in transactions of up to 4,096 of them, and takes the changes made while it runs as
    /// well. A write that fails is logged and its changes become unsaved again.
    void persist();

    /// Blocks until every write scheduled by `persist` before the call has finished.
    void waitUntilPersisted();

    /// "<DCISHACache: PATH, N records>"
    std::string description() const override;

private:
    DCISHACache(std::string cachePath, DCISasIDCalculator sasIDCalculator);

    /// A record as memory holds it, one per file of a library: the stamp packed, the hash as
    /// 32 bytes, the path split into the key of its folder, shared by the folder's records,
    /// and its name.
    struct Folder;
    using FolderEntry = std::pair<const std::string, Folder>;
    struct StoredRecord {
        int64_t modifiedSeconds = 0;
        uint32_t modifiedNanoseconds = 0;
        bool hasSHA = false;
        bool unsaved = false;  // changed since the last write took it
        uint64_t size = 0, inode = 0, device = 0;
        KSTSha256Digest sha{};
        std::unique_ptr<const std::string> sasID;  // none for ""
        FolderEntry* folder = nullptr;             // its folder's entry in `folders_`
    };
    /// A name and its record, in its folder's table.
    using Entry = std::pair<const std::string, StoredRecord>;
    struct TextHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    using RecordsByName = std::unordered_map<std::string, StoredRecord, TextHash, std::equal_to<>>;
    /// A folder's records, and how many of them are unsaved, so that a write skips the others.
    struct Folder {
        RecordsByName records;
        size_t unsaved = 0;
    };
    using Change = std::pair<std::string, std::optional<DCISHACacheRecord>>;
    /// Records hashed and compared by the file they are of, so that a set of them is an index
    /// by identity at a pointer an entry. Noexcept, so the set keeps no hash in its nodes.
    struct IdentityOfEntry {
        using is_transparent = void;
        static DCIFileIdentity of(const Entry* entry) noexcept { return {entry->second.device, entry->second.inode}; }
        size_t operator()(const DCIFileIdentity& identity) const noexcept { return DCIFileIdentityHash()(identity); }
        size_t operator()(const Entry* entry) const noexcept { return (*this)(of(entry)); }
        bool operator()(const Entry* a, const Entry* b) const noexcept { return of(a) == of(b); }
        bool operator()(const Entry* a, const DCIFileIdentity& b) const noexcept { return of(a) == b; }
        bool operator()(const DCIFileIdentity& a, const Entry* b) const noexcept { return a == of(b); }
    };

    static StoredRecord stored(const DCISHACacheRecord& record);
    static DCISHACacheRecord answered(const StoredRecord& record);
    static std::string pathOf(const Entry& entry) { return entry.second.folder->first + entry.first; }

    // The record valid for the file's current stamp (holding a hash when `needsSHA`), else a
    // new record; nothing when there is no regular file, or a miss may not read it.
    std::optional<DCISHACacheRecord> currentRecord(const std::string& path, bool eco, bool needsSHA);
    std::optional<DCISHACacheRecord> currentRecord(const std::string& path, const DCIFileStamp& stamp, bool eco,
                                                   bool needsSHA);
    static bool answersFor(const StoredRecord& record, const DCIFileStamp& stamp, bool needsSHA);
    // The record of `path`, or else of a file known under another path with the same stamp,
    // taken over by `path`: a rename reads nothing. Nothing when there is none. One look
    // under the lock, as every file of a scan asks.
    std::optional<DCISHACacheRecord> knownRecord(const std::string& path, const DCIFileStamp& stamp, bool needsSHA);
    // Hashes the file and stores its record; with `refuseUnreadable`, a file that cannot be
    // opened gets no record.
    std::optional<DCISHACacheRecord> hashAndStore(const std::string& path, bool eco, const DCIFileStamp& stamp,
                                                  bool refuseUnreadable);
    void store(const std::string& path, const DCISHACacheRecord& record);
    // The tables and the identity index change together, under the lock. A record put or
    // erased with `unsaved` is written (or deleted) by the next write.
    Entry* findEntry(std::string_view path);
    void putRecord(const std::string& path, StoredRecord record, bool unsaved);
    bool eraseRecord(const std::string& path, bool unsaved);
    void markUnsaved(Entry& entry);
    void index(Entry& entry);
    void unindex(const Entry& entry);
    // Writes, a bounded batch at a time so that a million new records are never copied at
    // once, until nothing is left unsaved; on the executor's thread, or the destroying one.
    void writeUnsavedChanges();
    std::vector<Change> takeUnsavedChanges(size_t most);

    const std::string shaCachePath_;
    std::atomic<bool> hashingStopped_{false};

    mutable std::mutex calculatorMutex_;
    DCISasIDCalculator sasIDCalculator_;

    mutable std::mutex accessMutex_;  // guards the members below
    // The records by the path of their folder (up to and with its last "/"), then by name.
    std::unordered_map<std::string, Folder, TextHash, std::equal_to<>> folders_;
    // Which record holds the hash of each file, by the file's identity.
    std::unordered_set<Entry*, IdentityOfEntry, IdentityOfEntry> byIdentity_;
    size_t unsavedCount_ = 0;
    std::unordered_set<std::string> droppedPaths_;  // to delete from the file at the next write
    bool writeScheduled_ = false;  // a write on the executor will take every unsaved change

    std::unique_ptr<DCISHACacheStore> store_;      // used on the executor's thread, then by the destructor
    std::unique_ptr<DCISerialExecutor> executor_;  // last: its thread stops before the members it uses go
};
