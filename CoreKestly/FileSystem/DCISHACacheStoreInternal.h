#pragma once

#include "CoreKestly/FileSystem/DCISHACache.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class DCISQLiteDatabase;
class DCISQLiteStatement;

/// The file behind a `DCISHACache`: an SQLite database with one row per path, written through
/// a write-ahead log so that every write is all or nothing even if the process dies in it.
///
/// A cache file of the earlier format (whole-second records, no version) is emptied in place
/// with a log line. A file at the path that is not such a database (another file, a damaged
/// database, a database of another shape or of a later format) is logged, renamed to "<path>.corrupt-<UTC time>" with its
/// journal files, and replaced by an empty cache. A file that cannot be opened or created
/// leaves the store working without a file: it reads nothing and its writes succeed unstored.
/// Used by one thread at a time.
class DCISHACacheStore {
public:
    /// A path and its new record, or nothing to remove the path's row.
    using Change = std::pair<std::string, std::optional<DCISHACacheRecord>>;

    explicit DCISHACacheStore(std::string path);
    ~DCISHACacheStore();
    DCISHACacheStore(const DCISHACacheStore&) = delete;
    DCISHACacheStore& operator=(const DCISHACacheStore&) = delete;

    /// Hands every record in the file to `visit`, one at a time, so that a large file is
    /// never held in memory twice. False when the file was found damaged (and set aside) or
    /// unreadable part-way: the records already handed over are then not to be trusted.
    bool readAllRecords(const std::function<void(std::string path, DCISHACacheRecord record)>& visit);

    /// Writes all `changes` in one transaction. False, with a log line, when nothing was written.
    bool write(const std::vector<Change>& changes);

private:
    enum class FileState { Cache, Empty, Outdated, WithoutDevice, Foreign, Damaged, Unusable };

    void open();
    FileState inspect();
    bool createSchema();
    bool addDevice();
    bool prepareStatements();
    void close();
    void setAsideAndReopen(const std::string& reason);
    void workWithoutFile(const std::string& reason);
    bool writeChange(const Change& change);

    const std::string path_;
    std::unique_ptr<DCISQLiteDatabase> database_;  // nothing while working without a file
    // After the database: statements must be finalised before their connection closes.
    std::unique_ptr<DCISQLiteStatement> upsertRecord_;
    std::unique_ptr<DCISQLiteStatement> deleteRecord_;
};
