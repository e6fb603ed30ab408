#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/RunLoop/DCIAtomicSharedPtr.h"
#include "CoreKestly/FileSystem/DCIEntryDictionary.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/FileSystem/DCIPathIdentity.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <sys/stat.h>

class DCIFolderObject;

/// A folder's direct files of interest or sub-folders, by entry name as the listing spells it.
using DCIFileDictionary = DCIEntryDictionary<DCIFileObject>;
using DCIFolderDictionary = DCIEntryDictionary<DCIFolderObject>;

/// A snapshot of folders, one member per absolute path.
using DCIFolderSet = std::unordered_set<std::shared_ptr<DCIFolderObject>, DCIIdentityHash, DCIIdentityEqual>;

/// A folder listed again, not yet stored: its dictionaries as they were and as the disk has
/// them now. Entries that did not change keep their objects.
struct DCIFolderRelisting {
    std::shared_ptr<const DCIFileDictionary> oldFiles, newFiles;
    std::shared_ptr<const DCIFolderDictionary> oldSubFolders, newSubFolders;
    /// A link to a folder was met: which path lists a folder is decided by a whole walk only.
    bool metFolderLinks = false;
};

/// One folder of the watched tree. Made for a path, it scans its directory at once and builds
/// its whole subtree: a sub-folder for every entry that is a folder or a link to one (hidden
/// ones too), a `DCIFileObject` for every regular file (or link to one) that the tree's
/// queries call of interest and that may be read. FIFOs, sockets and devices never enter the
/// tree, whatever their names: they could never be hashed. A folder owns its sub-folders and
/// files; they refer to it weakly, so whoever holds the root keeps the tree alive.
///
/// The tree is tied to the `DCIFileQueries` it was built with, held weakly: once that object
/// is gone the tree sees no file of interest and hashes files itself, uncached.
///
/// Each real folder (device and inode) is listed once per build, so links can neither loop
/// nor multiply the tree: a folder is listed at its path without links when the walk has one,
/// else at the first link that reaches it, links taken in the order the walk meets them,
/// names sorted. Any other link to it becomes a sub-folder that is not listed. The cost of a
/// build is therefore linear in the real folders, whatever the links.
///
/// Threads: a tree is built and changed by one thread at a time; anyone may read it meanwhile.
/// The dictionaries are replaced, never edited, so a dictionary obtained from `files()` or
/// `subFolders()` never changes under its holder. The tree takes no lock of its own.
///
/// Holding across passes: a host may keep any folder, file or dictionary it was handed for as
/// long as it likes; each keeps its path and contents (a pass that finds a folder or file
/// unchanged keeps its object, one that finds it changed makes a new one). What is kept
/// alive is only what is held: a folder's `parent()` answers while someone holds the parent.
class KESTLY_EXPORT DCIFolderObject : public DCIObject, public std::enable_shared_from_this<DCIFolderObject> {
public:
    /// The folder at the absolute `path` under `inFolder` (nullptr for a root), with its whole
    /// subtree built through `fileQueries`; nullptr when nothing exists at the path. A path to
    /// a file gives a folder without entries.
    static std::shared_ptr<DCIFolderObject> initWithPath(const std::string& path,
                                                         const std::shared_ptr<DCIFolderObject>& inFolder,
                                                         std::weak_ptr<DCIFileQueries> fileQueries);

    /// Whether an item (of any kind, a link not followed) still exists at `absolutePath()`.
    bool exists() const;

    /// Lists the directory again and replaces both dictionaries with the fresh subtree. A
    /// directory that cannot be listed gives a folder without entries.
    void buildFileAndFolderList();

    /// Hashes every file of the subtree through the queries' caches, setting each file's
    /// `fileHash` and `sasID`. A file the queries answer no hash for (unreadable, vanished, a
    /// read error, a hash cut short) is left out of the tree. True when no file was left out.
    bool generateHashes();
    /// `generateHashes` on `threads` threads at once (this one among them): a first scan
    /// hashes on every core. The queries are asked from all of them.
    bool generateHashes(unsigned threads);

    /// Brings the entry `name` (one path component) in line with the disk: a regular file of
    /// interest is replaced by a new file object without hash, or removed when it may not be
    /// read; a new folder is added with its subtree; a vanished entry, or a file whose name
    /// now holds a folder, FIFO or device, is removed. True when the folder's contents
    /// changed. A folder already present, an existing entry of no interest, an unknown
    /// missing name, or a `name` that is not one component changes nothing.
    bool updateItemAtSubPath(const std::string& name);

    /// Rebuilds the entry `name` from the disk whatever the tree held under it, for an item a
    /// file operation just made or took away: a file of interest or a folder becomes a new,
    /// hashed entry (a folder with its subtree); anything else, or nothing, removes the entry.
    /// No other entry is looked at. False for a `name` that is not one component.
    bool replaceItemAtSubPath(const std::string& name);

    /// The sub-folder `name`; when the tree lacks it and the disk has a folder there, it is
    /// added without listing it: a folder an operation made on the way to its item, whose
    /// other entries are the next scan's to find. nullptr when there is no folder there.
    std::shared_ptr<DCIFolderObject> subFolderMadeByOperation(const std::string& name);

    /// Takes the file `name` out of the tree; true when it was there.
    bool removeFile(const std::string& name);
    /// Takes the files `names` out of the tree at once; true when one of them was there.
    bool removeFiles(const std::vector<std::string_view>& names);

    /// Lists the folder again, for a pass that looks at changed folders only: a file of interest
    /// whose hash through the queries is unchanged, and a sub-folder that is still the same
    /// directory, keep their objects; a new or changed file gets a new, hashed object (a file
    /// that cannot be hashed is left out); a new sub-folder is built with its subtree and
    /// hashed. Nothing is stored: see `commit`.
    DCIFolderRelisting relist() const;
    /// Stores a relisting's dictionaries, unless the folder's own changed since it was made
    /// (an operation's tree update): false then, and nothing is stored.
    bool commit(const DCIFolderRelisting& relisting);
    /// Whether the build of this folder's subtree met a link to a folder.
    bool metFolderLinks() const { return metFolderLinks_.load(); }

    /// Every file object in the subtree.
    DCIFileSet gatherFiles() const;
    /// Every folder below this one, this one excluded.
    DCIFolderSet gatherFolders() const;

    /// The first file whose `fileHash()` is `hash`, depth first, a folder's own files before
    /// its sub-folders; files without a hash are hashed on the way. nullptr for no hash.
    std::shared_ptr<DCIFileObject> searchForFileWithHash(const std::optional<std::string>& hash) const;
    /// As `searchForFileWithHash`, comparing the stored `sasID`s.
    std::shared_ptr<DCIFileObject> searchForFileWithSasID(const std::optional<std::string>& sasID) const;

    const std::string& absolutePath() const { return *absolutePath_; }
    /// The last component of `absolutePath()`: the folder's entry name in its parent.
    std::string_view name() const;
    /// The path from the root: "" for the root, else the parent's relative path joined with
    /// this folder's last path component.
    std::string relativePath() const;
    /// The folder that holds this one; nullptr for a root and once the parent is gone.
    std::shared_ptr<DCIFolderObject> parent() const { return parent_.lock(); }
    /// The topmost ancestor; the folder itself when it has no parent.
    std::shared_ptr<DCIFolderObject> root() const;
    /// The path from `folder` to this folder: ".." for every level from `folder` up to their
    /// lowest common ancestor, then the names down to this one. "" for the folder itself;
    /// nothing for no folder or a folder of an unrelated tree. Folders of different builds
    /// of one tree meet by path.
    std::optional<std::string> pathRelativeToFolder(const std::shared_ptr<DCIFolderObject>& folder) const;

    /// The current dictionaries; never null, never changed once handed out.
    std::shared_ptr<const DCIFileDictionary> files() const { return files_.load(); }
    std::shared_ptr<const DCIFolderDictionary> subFolders() const { return subFolders_.load(); }

    /// `DCIPathHash` of `absolutePath()`.
    uint64_t hash() const { return pathHash_; }
    /// True when `other` is a folder object with the same absolute path.
    bool isEqual(const DCIObject& other) const;

    /// The absolute path.
    std::string description() const override { return absolutePath(); }

private:
    /// Where a directory lives: what every path to one real folder shares.
    using DirectoryIdentity = DCIFileIdentity;
    /// One build: the real folders listed so far, and the folders reached through a link,
    /// listed once the walk without links is over, if their folder was not met by then.
    struct Walk {
        std::unordered_set<DirectoryIdentity, DCIFileIdentityHash> listed;
        std::vector<std::shared_ptr<DCIFolderObject>> throughLinks;
        bool metFolderLinks = false;
    };

    DCIFolderObject(const std::string& path, const std::shared_ptr<DCIFolderObject>& parent,
                    std::weak_ptr<DCIFileQueries> fileQueries, std::optional<DirectoryIdentity> identity);

    /// An existing entry of the directory; a folder (or a link to one) carries its identity.
    struct ListedEntry {
        std::string name;
        std::optional<DirectoryIdentity> folderIdentity;
        bool isLink = false;
        struct stat fileStatus {};  // of a file of interest
    };

    static std::shared_ptr<DCIFolderObject> makeFolder(const std::string& path,
                                                       const std::shared_ptr<DCIFolderObject>& parent,
                                                       std::weak_ptr<DCIFileQueries> fileQueries,
                                                       std::optional<DirectoryIdentity> identity);
    /// A walk that already counts this folder's ancestors as listed, so a link back up ends.
    Walk walkFromHere() const;
    /// Lists this folder and, through `walk`, its subtree.
    void list(Walk& walk);
    /// Lists the folders `walk` reached only through links, and those they reach in turn.
    static void finish(Walk& walk);
    /// The entries of the directory that can belong to the tree: folders, links to them, and
    /// regular files of interest, each read with one status call.
    std::vector<ListedEntry> listEntries() const;
    /// Sets the file's hash and `sasID` from `queries` (by itself when there are none); false
    /// when no hash could be had.
    static bool hashFile(DCIFileObject& file, DCIFileQueries* queries);
    std::shared_ptr<DCIFileObject> findFile(const std::function<bool(const DCIFileObject&)>& matches) const;
    void collectFiles(DCIFileSet& files) const;
    void collectFolders(DCIFolderSet& folders) const;

    friend class DCIFileObject;  // which shares the path below
    const std::shared_ptr<const std::string> absolutePath_;
    const std::weak_ptr<DCIFolderObject> parent_;
    const std::weak_ptr<DCIFileQueries> fileQueries_;
    const std::optional<DirectoryIdentity> identity_;  // of the directory found at creation
    const uint64_t pathHash_;
    DCIAtomicSharedPtr<const DCIFileDictionary> files_;
    DCIAtomicSharedPtr<const DCIFolderDictionary> subFolders_;
    std::atomic<bool> metFolderLinks_{false};
};
