#include "CoreKestly/FileSystem/DCISHACacheStoreInternal.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Platform/Storage/DCISQLiteDatabaseInternal.h"

#include <ctime>
#include <filesystem>
#include <system_error>

namespace {

// Marks the file as ours, so a database of another application is never taken for a cache.
constexpr int64_t kApplicationID = 0x4B534843;  // "KSHC"

// The layout of the records table; 0, SQLite's default, was the first one, which knew
// modification times in whole seconds only; 2 had no device, which 3 adds.
constexpr int64_t kSchemaVersion = 3;
constexpr int64_t kSchemaVersionWithoutDevice = 2;

// STRICT keeps every row's types what the reader expects, whoever wrote it. The modification
// time is held as seconds and nanoseconds, since one count of nanoseconds ends in 2262; inodes
// are stored with their 64 bits as a signed integer.
constexpr std::string_view kCreateTable =
    "CREATE TABLE records ("
    "path TEXT PRIMARY KEY NOT NULL, mdate INTEGER NOT NULL, mdateNanoseconds INTEGER NOT NULL, "
    "size INTEGER NOT NULL, inode INTEGER NOT NULL, sha TEXT, sasID TEXT NOT NULL, device INTEGER NOT NULL"
    ") STRICT, WITHOUT ROWID";
// Records of the format without device get 0, which the cache replaces by the device of the
// file still at the path when it loads them, so that no file is hashed again for the upgrade.
constexpr std::string_view kAddDevice = "ALTER TABLE records ADD COLUMN device INTEGER NOT NULL DEFAULT 0";

constexpr std::string_view kSelectRecords =
    "SELECT path, mdate, mdateNanoseconds, size, inode, sha, sasID, device FROM records";
constexpr std::string_view kUpsertRecord =
    "INSERT OR REPLACE INTO records (path, mdate, mdateNanoseconds, size, inode, sha, sasID, device) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
constexpr std::string_view kDeleteRecord = "DELETE FROM records WHERE path = ?1";

// The journal files SQLite may keep beside a database; they travel with it when it is set aside.
constexpr const char* kJournalSuffixes[] = {"-wal", "-shm", "-journal"};

// "<path>.corrupt-20240131T235959Z", with "-2", "-3"... when that name is taken already.
std::string setAsidePath(const std::string& path) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    const std::string base = path + ".corrupt-" + stamp;
    std::string candidate = base;
    std::error_code error;
    for (int suffix = 2; std::filesystem::exists(candidate, error); ++suffix) {
        candidate = base + "-" + std::to_string(suffix);
    }
    return candidate;
}

}  // namespace

DCISHACacheStore::DCISHACacheStore(std::string path) : path_(std::move(path)) {
    open();
}

DCISHACacheStore::~DCISHACacheStore() {
    close();
}

void DCISHACacheStore::open() {
    if (path_.empty()) return workWithoutFile("no path given");  // SQLite would make a temporary file
    std::string failure;
    database_ = DCISQLiteDatabase::open(path_, failure);
    if (!database_) return workWithoutFile(failure);

    switch (inspect()) {
    case FileState::Cache:
        break;
    case FileState::Empty:
        if (!createSchema()) return workWithoutFile(database_->lastErrorMessage());
        break;
    case FileState::Outdated:
        // Its records cannot tell a rewrite within the same second, so none can be trusted:
        // the table is made anew and every file is hashed again, once.
        if (!createSchema()) return workWithoutFile(database_->lastErrorMessage());
        DCLogError("SHA cache %@ was of an earlier format; its records were dropped and the files will be hashed "
                   "again",
                   path_);
        break;
    case FileState::WithoutDevice:
        if (!addDevice()) return workWithoutFile(database_->lastErrorMessage());
        break;
    case FileState::Foreign:
        return setAsideAndReopen("a database of another kind");
    case FileState::Damaged:
        return setAsideAndReopen(database_->lastErrorMessage());
    case FileState::Unusable:
        return workWithoutFile(database_->lastErrorMessage());
    }
    // Only a file known to be ours is switched to the write-ahead log: a foreign file that is
    // set aside must leave exactly as it was found.
    database_->execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL");
    // The file is read whole once per run and then only written: pages the system caches
    // anyway are not worth SQLite's default 2 MB of its own per cache.
    database_->execute("PRAGMA cache_size = -512");
    if (!prepareStatements()) workWithoutFile(database_->lastErrorMessage());
}

DCISHACacheStore::FileState DCISHACacheStore::inspect() {
    const auto objectCount = database_->queryInt64("SELECT count(*) FROM sqlite_master");
    if (!objectCount) {
        return database_->lastFailure() == DCISQLiteFailure::DamagedFile ? FileState::Damaged : FileState::Unusable;
    }
    if (*objectCount == 0) return FileState::Empty;
    if (database_->queryInt64("PRAGMA application_id") != kApplicationID) return FileState::Foreign;
    const auto version = database_->queryInt64("PRAGMA user_version");
    if (version == 0) return FileState::Outdated;
    if (version == kSchemaVersionWithoutDevice) return FileState::WithoutDevice;
    // A later format, or one whose table is not as its version says, is no file to write to.
    if (version != kSchemaVersion || !database_->prepare(kSelectRecords)) return FileState::Foreign;
    return FileState::Cache;
}

bool DCISHACacheStore::createSchema() {
    DCISQLiteTransaction transaction(*database_);
    return transaction.isActive() && database_->execute("DROP TABLE IF EXISTS records") &&
           database_->execute(kCreateTable) &&
           database_->execute("PRAGMA application_id = " + std::to_string(kApplicationID)) &&
           database_->execute("PRAGMA user_version = " + std::to_string(kSchemaVersion)) && transaction.commit();
}

bool DCISHACacheStore::addDevice() {
    DCISQLiteTransaction transaction(*database_);
    return transaction.isActive() && database_->execute(kAddDevice) &&
           database_->execute("PRAGMA user_version = " + std::to_string(kSchemaVersion)) && transaction.commit();
}

bool DCISHACacheStore::prepareStatements() {
    auto upsert = database_->prepare(kUpsertRecord);
    auto erase = database_->prepare(kDeleteRecord);
    if (!upsert || !erase) return false;
    upsertRecord_ = std::make_unique<DCISQLiteStatement>(std::move(*upsert));
    deleteRecord_ = std::make_unique<DCISQLiteStatement>(std::move(*erase));
    return true;
}

void DCISHACacheStore::close() {
    upsertRecord_.reset();
    deleteRecord_.reset();
    database_.reset();
}

void DCISHACacheStore::setAsideAndReopen(const std::string& reason) {
    close();
    const std::string asidePath = setAsidePath(path_);
    std::error_code error;
    std::filesystem::rename(path_, asidePath, error);
    if (error) {
        DCLogError("Unable to set aside the unusable SHA cache %@ (%@): %@", path_, reason, error.message());
        return workWithoutFile(reason);
    }
    for (const char* suffix : kJournalSuffixes) {
        std::error_code journalError;
        std::filesystem::rename(path_ + suffix, asidePath + suffix, journalError);  // most are absent
    }
    DCLogError("SHA cache %@ could not be used (%@); set aside as %@ and started empty", path_, reason, asidePath);
    open();
}

void DCISHACacheStore::workWithoutFile(const std::string& reason) {
    close();
    DCLogError("Unable to open SHA cache %@ (%@); caching in memory only", path_, reason);
}

bool DCISHACacheStore::readAllRecords(const std::function<void(std::string path, DCISHACacheRecord record)>& visit) {
    if (!database_) return true;
    auto select = database_->prepare(kSelectRecords);
    auto step = select ? select->step() : DCISQLiteStatement::Step::Failed;
    for (; step == DCISQLiteStatement::Step::Row; step = select->step()) {
        const DCIFileStamp stamp{DCIDate::dateWithSecondsSince1970(select->columnInt64(1), select->columnInt64(2)),
                                 static_cast<uint64_t>(select->columnInt64(3)),
                                 static_cast<uint64_t>(select->columnInt64(4)),
                                 static_cast<uint64_t>(select->columnInt64(7))};
        visit(select->columnText(0).value_or(""),
              DCISHACacheRecord{stamp, select->columnText(5), select->columnText(6).value_or("")});
    }
    if (step == DCISQLiteStatement::Step::Done) return true;

    const std::string reason = database_->lastErrorMessage();
    const bool damaged = database_->lastFailure() == DCISQLiteFailure::DamagedFile;
    select.reset();
    if (damaged) {
        setAsideAndReopen(reason);
    } else {
        DCLogError("Unable to read SHA cache %@: %@", path_, reason);
    }
    return false;
}

bool DCISHACacheStore::write(const std::vector<Change>& changes) {
    if (!database_) return true;
    DCISQLiteTransaction transaction(*database_);
    bool written = transaction.isActive();
    for (auto change = changes.begin(); written && change != changes.end(); ++change) {
        written = writeChange(*change);
    }
    if (written && transaction.commit()) return true;
    DCLogError("Unable to write SHA cache %@: %@", path_, database_->lastErrorMessage());
    return false;
}

bool DCISHACacheStore::writeChange(const Change& change) {
    const auto& [path, record] = change;
    DCISQLiteStatement& statement = record ? *upsertRecord_ : *deleteRecord_;
    bool bound = statement.bind(1, path);
    if (record) {
        const DCIFileStamp& stamp = record->stamp;
        bound = bound && statement.bind(2, stamp.mdate.secondsSince1970()) &&
                statement.bind(3, int64_t{stamp.mdate.nanoseconds()}) &&
                statement.bind(4, static_cast<int64_t>(stamp.size)) &&
                statement.bind(5, static_cast<int64_t>(stamp.inode)) &&
                (record->sha ? statement.bind(6, *record->sha) : statement.bindNull(6)) &&
                statement.bind(7, record->sasID) && statement.bind(8, static_cast<int64_t>(stamp.device));
    }
    const bool done = bound && statement.step() == DCISQLiteStatement::Step::Done;
    statement.reset();
    return done;
}
