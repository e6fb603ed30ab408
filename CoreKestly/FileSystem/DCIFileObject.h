#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/FileSystem/DCIFileStamp.h"
#include "CoreKestly/FileSystem/DCIPathIdentity.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <cstdint>
#include <mutex>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>

class DCIFolderObject;

/// One file of interest in the watched tree, a leaf of a `DCIFolderObject`: its name, its two
/// dates, its content hash and its `sasID`. Its folder owns it; it refers to the folder weakly.
///
/// A file object is the file at one absolute path: that path is fixed when the object is made
/// (renaming a folder above it later changes nothing) and decides identity, so the objects
/// for one path in two scans of the tree are equal whatever their contents. Content changes
/// and moves are found by comparing `fileHash()` values.
///
/// A library holds one object per file, so an object is kept small: its name, the path of
/// its folder shared with the folder's other files, the hash as 32 bytes, the stamp packed.
/// The absolute path and the hash's hex text are built when asked for. An object keeps its
/// folder's path for as long as it lives, so a host may hold a file object across passes
/// (an event's, say) and still ask for its path, hash and dates; `parent()` answers only
/// while that folder is still in some tree someone holds.
///
/// Every accessor may be called from any thread.
class KESTLY_EXPORT DCIFileObject : public DCIObject {
public:
    /// The file `name` in `inFolder`, with its dates read from disk; nullptr when there is no
    /// folder, when the entry is not a regular file after links (a folder, FIFO, socket or
    /// device: none could ever be hashed), or when it may not be read (missing, a dangling
    /// link, no permission).
    static std::shared_ptr<DCIFileObject> initWithFileName(const std::string& name,
                                                           const std::shared_ptr<DCIFolderObject>& inFolder);
    /// The file `name` in `inFolder` as the status a scan has just read of it (links followed)
    /// describes it: nothing more is read. nullptr when there is no folder or the status is no
    /// regular file's. Whether it may be read is found when it is hashed.
    static std::shared_ptr<DCIFileObject> initWithFileName(const std::string& name,
                                                           const std::shared_ptr<DCIFolderObject>& inFolder,
                                                           const struct stat& status);

    /// Rereads both dates from the file's status, following links, so a link gives its
    /// target's dates. False, with the dates left as they were, when the entry is no readable
    /// regular file. Nothing is opened.
    bool updateAttributes();

    /// The entry's name inside its folder.
    const std::string& name() const { return name_; }
    /// The content modification time (st_mtime), whole seconds.
    DCIDate modifiedDate() const;
    /// The status-change time (st_ctime), whole seconds; not the birth time.
    DCIDate createdDate() const;
    /// The stamp of the file's status as last read: what a cache checks its records against.
    DCIFileStamp stamp() const;
    /// The folder that holds the file; nullptr once that folder is gone.
    std::shared_ptr<DCIFolderObject> parent() const { return parent_.lock(); }

    /// The folder's absolute path joined with `name()`, as it was when the object was made.
    std::string absolutePath() const;
    /// The path from the root of the tree: the names of the folders below the root, outermost
    /// first, then `name()`; only `name()` once the folder is gone.
    std::string relativePath() const;
    /// The path from `folder` to this file ("../b/name" and the like), or nothing when there
    /// is no folder or the two share no ancestor.
    std::optional<std::string> pathRelativeToFolder(const std::shared_ptr<DCIFolderObject>& folder) const;

    /// The stored content hash; when none is stored yet, the file is hashed at full speed on
    /// the calling thread, bypassing every cache, and a result is stored. Nothing when the
    /// file cannot be hashed; the next call tries again.
    std::optional<std::string> fileHash() const;
    /// Stores a SHA-256 as 64 hex characters; any other text, like nothing, stores no hash.
    void setFileHash(const std::optional<std::string>& fileHash);
    std::optional<std::string> sasID() const;
    void setSasID(const std::optional<std::string>& sasID);

    /// The identity value, `DCIPathHash` of `absolutePath()`.
    uint64_t hash() const { return compareHash_; }
    /// True when `other` is a file object with the same identity value. Contents, dates and
    /// `sasID` play no part.
    bool isEqual(const DCIObject& other) const;

    /// The absolute path.
    std::string description() const override { return absolutePath(); }

private:
    struct MakeKey {
        explicit MakeKey() = default;
    };

public:
    /// For `std::make_shared` only, which puts object and count in one allocation.
    DCIFileObject(MakeKey, const std::string& name, const std::shared_ptr<DCIFolderObject>& folder);

private:
    /// The stamp and the creation time in 44 bytes rather than a `DCIFileStamp` and a `DCIDate`,
    /// and in their padding whether `fileHash_` holds a hash.
    struct Status {
        int64_t modifiedSeconds = 0;
        int64_t createdSeconds = 0;
        uint64_t size = 0, inode = 0, device = 0;
        uint32_t modifiedNanoseconds = 0;
        bool hasFileHash = false;
    };

    static std::shared_ptr<DCIFileObject> make(const std::string& name, const std::shared_ptr<DCIFolderObject>& folder);
    void setStatus(const struct stat& status);
    Status status() const;
    void storeHash(const std::optional<KSTSha256Digest>& digest) const;
    /// The lock over the mutable members: one of a fixed set that all file objects share, so
    /// that a million files do not each carry a mutex.
    std::mutex& lock() const;

    const std::string name_;
    const std::weak_ptr<DCIFolderObject> parent_;
    const std::shared_ptr<const std::string> folderPath_;  // the parent's, shared with it
    const uint64_t compareHash_;

    // Guarded by `lock()`.
    mutable Status state_;
    mutable KSTSha256Digest fileHash_{};
    std::unique_ptr<const std::string> sasID_;  // none for no `sasID`
};

/// A snapshot of files, one member per absolute path.
using DCIFileSet = std::unordered_set<std::shared_ptr<DCIFileObject>, DCIIdentityHash, DCIIdentityEqual>;
