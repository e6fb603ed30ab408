#pragma once

#include <optional>
#include <string>

/// The three questions the folder tree asks while it scans and hashes: which files belong in
/// it, and each file's hash and `sasID`, answered through whatever caches the answering object
/// keeps. The file manager answers them for the tree of its root; `DCICachedFileQueries` does
/// for a tree built without one. Answers may be asked for from any thread.
class DCIFileQueries {
public:
    virtual ~DCIFileQueries() = default;

    /// Whether the non-folder entry at the absolute `path` belongs in the tree; decided by
    /// the entry's name alone.
    virtual bool isFileOfInterest(const std::string& path) = 0;
    /// The SHA-256 of the file at `path` as 64 lower-case hex characters, or nothing.
    virtual std::optional<std::string> SHAForFileAtPath(const std::string& path) = 0;
    /// The `sasID` of the file at `path`, or nothing.
    virtual std::optional<std::string> SasIDForFileAtPath(const std::string& path) = 0;

protected:
    DCIFileQueries() = default;
    DCIFileQueries(const DCIFileQueries&) = default;
    DCIFileQueries& operator=(const DCIFileQueries&) = default;
};
