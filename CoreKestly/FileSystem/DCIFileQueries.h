#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/FileSystem/DCIFileStamp.h"

#include <optional>
#include <string>

/// What the tree learns of a file it hashes: its hash and, when it has one, its `sasID`.
struct DCIFileIdentifiers {
    std::optional<std::string> sha;
    std::optional<std::string> sasID;  // nothing whenever `sha` is
};

/// The questions the folder tree asks while it scans and hashes: which files belong in it, and
/// each file's hash and `sasID`, answered through whatever caches the answering object
/// keeps. The file manager answers them for the tree of its root; `DCICachedFileQueries` does
/// for a tree built without one. Answers may be asked for from any thread.
class KESTLY_EXPORT DCIFileQueries {
public:
    virtual ~DCIFileQueries() = default;

    /// Whether the non-folder entry at the absolute `path` belongs in the tree; decided by
    /// the entry's name alone.
    virtual bool isFileOfInterest(const std::string& path) = 0;
    /// The SHA-256 of the file at `path` as 64 lower-case hex characters, or nothing.
    virtual std::optional<std::string> SHAForFileAtPath(const std::string& path) = 0;
    /// The `sasID` of the file at `path`, or nothing.
    virtual std::optional<std::string> SasIDForFileAtPath(const std::string& path) = 0;

    /// `SHAForFileAtPath`, then `SasIDForFileAtPath` of the same path when a hash came back:
    /// what the tree asks of every file it hashes. An implementation that can answer both
    /// from one look at the file overrides this with the same answers.
    virtual DCIFileIdentifiers identifiersForFileAtPath(const std::string& path) {
        DCIFileIdentifiers identifiers{SHAForFileAtPath(path), std::nullopt};
        if (identifiers.sha) identifiers.sasID = SasIDForFileAtPath(path);
        return identifiers;
    }
    /// `identifiersForFileAtPath` for a regular file whose stamp the tree has just read, so
    /// that an implementation with a cache need not read it again: what a scan asks.
    virtual DCIFileIdentifiers identifiersForFile(const std::string& path, const DCIFileStamp& /*stamp*/) {
        return identifiersForFileAtPath(path);
    }

    /// Whether a scan removes the items that copies cut short left behind, as it meets them
    /// (the file manager's first scan of a root does); else it only leaves them out.
    virtual bool removesAbandonedStagingItems() { return false; }

protected:
    DCIFileQueries() = default;
    DCIFileQueries(const DCIFileQueries&) = default;
    DCIFileQueries& operator=(const DCIFileQueries&) = default;
};
