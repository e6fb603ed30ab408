#include "CoreKestly/Platform/Storage/DCISQLiteDatabaseInternal.h"

#include <sqlite3.h>

namespace {

// How long a connection waits for another process that holds the file's write lock.
constexpr int kBusyTimeoutMilliseconds = 5000;

}  // namespace

void DCISQLiteStatement::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

bool DCISQLiteStatement::bind(int index, std::string_view text) {
    return sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8) ==
           SQLITE_OK;
}

bool DCISQLiteStatement::bind(int index, int64_t number) {
    return sqlite3_bind_int64(statement_.get(), index, number) == SQLITE_OK;
}

bool DCISQLiteStatement::bindNull(int index) {
    return sqlite3_bind_null(statement_.get(), index) == SQLITE_OK;
}

DCISQLiteStatement::Step DCISQLiteStatement::step() {
    switch (sqlite3_step(statement_.get())) {
    case SQLITE_ROW:
        return Step::Row;
    case SQLITE_DONE:
        return Step::Done;
    default:
        return Step::Failed;
    }
}

void DCISQLiteStatement::reset() {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
}

std::optional<std::string> DCISQLiteStatement::columnText(int index) const {
    const auto* text = sqlite3_column_text(statement_.get(), index);
    if (!text) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(statement_.get(), index)));
}

int64_t DCISQLiteStatement::columnInt64(int index) const {
    return sqlite3_column_int64(statement_.get(), index);
}

std::unique_ptr<DCISQLiteDatabase> DCISQLiteDatabase::open(const std::string& path, std::string& failureMessage) {
    sqlite3* connection = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &connection, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (result != SQLITE_OK) {
        // A connection is handed back even on failure, to carry the message; it must be closed.
        failureMessage = connection ? sqlite3_errmsg(connection) : sqlite3_errstr(result);
        sqlite3_close(connection);
        return nullptr;
    }
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, kBusyTimeoutMilliseconds);
    return std::unique_ptr<DCISQLiteDatabase>(new DCISQLiteDatabase(connection));
}

DCISQLiteDatabase::~DCISQLiteDatabase() {
    // Every statement is finalised by now (they must go first), so this closes for real.
    sqlite3_close(connection_);
}

bool DCISQLiteDatabase::execute(std::string_view sql) {
    return sqlite3_exec(connection_, std::string(sql).c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::optional<DCISQLiteStatement> DCISQLiteDatabase::prepare(std::string_view sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(connection_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr) != SQLITE_OK) {
        return std::nullopt;
    }
    return DCISQLiteStatement(statement);
}

std::optional<int64_t> DCISQLiteDatabase::queryInt64(std::string_view sql) {
    auto statement = prepare(sql);
    if (!statement || statement->step() != DCISQLiteStatement::Step::Row) return std::nullopt;
    return statement->columnInt64(0);
}

std::optional<std::string> DCISQLiteDatabase::queryText(std::string_view sql) {
    auto statement = prepare(sql);
    if (!statement || statement->step() != DCISQLiteStatement::Step::Row) return std::nullopt;
    return statement->columnText(0);
}

std::string DCISQLiteDatabase::lastErrorMessage() const {
    return sqlite3_errmsg(connection_);
}

DCISQLiteFailure DCISQLiteDatabase::lastFailure() const {
    switch (sqlite3_errcode(connection_) & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_FORMAT:
        return DCISQLiteFailure::DamagedFile;
    default:
        return DCISQLiteFailure::Other;
    }
}

DCISQLiteTransaction::DCISQLiteTransaction(DCISQLiteDatabase& database)
    : database_(database), active_(database.execute("BEGIN IMMEDIATE")) {}

DCISQLiteTransaction::~DCISQLiteTransaction() {
    if (active_) database_.execute("ROLLBACK");
}

bool DCISQLiteTransaction::commit() {
    if (!active_ || !database_.execute("COMMIT")) return false;
    active_ = false;
    return true;
}
