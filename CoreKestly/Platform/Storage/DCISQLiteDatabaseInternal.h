#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

/// What went wrong with the last call on a connection, in the terms its users decide by.
enum class DCISQLiteFailure {
    /// The file is not an SQLite database, or a damaged one.
    DamagedFile,
    /// Anything else: no permission, a full disk, a lock held too long, a bad statement.
    Other,
};

/// One prepared statement; finalised when it goes. Belongs to the connection that made it
/// and must go before it.
class DCISQLiteStatement {
public:
    enum class Step { Row, Done, Failed };

    DCISQLiteStatement(DCISQLiteStatement&&) noexcept = default;
    DCISQLiteStatement& operator=(DCISQLiteStatement&&) noexcept = default;

    /// Parameters count from 1. Text is copied.
    bool bind(int index, std::string_view text);
    bool bind(int index, int64_t number);
    bool bindNull(int index);

    Step step();
    /// Makes the statement ready to run again, with its parameters cleared.
    void reset();

    /// Columns count from 0. A NULL column reads as nothing.
    std::optional<std::string> columnText(int index) const;
    int64_t columnInt64(int index) const;

private:
    friend class DCISQLiteDatabase;
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    explicit DCISQLiteStatement(sqlite3_stmt* statement) : statement_(statement) {}

    std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

/// One connection to an SQLite database file; closed when it goes. Used by one thread at a
/// time. Failures are answered as false or nothing; `lastErrorMessage` says why.
class DCISQLiteDatabase {
public:
    /// Opens the database at `path` for reading and writing, creating an empty file when
    /// there is none. Nothing when even that fails; `failureMessage` then says why. A file
    /// that is not a database opens fine: the first statement finds out.
    static std::unique_ptr<DCISQLiteDatabase> open(const std::string& path, std::string& failureMessage);

    ~DCISQLiteDatabase();
    DCISQLiteDatabase(const DCISQLiteDatabase&) = delete;
    DCISQLiteDatabase& operator=(const DCISQLiteDatabase&) = delete;

    /// Runs statements that answer no rows, separated by ";".
    bool execute(std::string_view sql);
    std::optional<DCISQLiteStatement> prepare(std::string_view sql);
    /// The single value of a query that answers one integer, such as a pragma.
    std::optional<int64_t> queryInt64(std::string_view sql);
    /// The single value of a query that answers one text; nothing when it answers no row.
    std::optional<std::string> queryText(std::string_view sql);

    std::string lastErrorMessage() const;
    DCISQLiteFailure lastFailure() const;

private:
    explicit DCISQLiteDatabase(sqlite3* connection) : connection_(connection) {}

    sqlite3* connection_;
};

/// A write transaction, begun at once (so a second writer waits here, not at its first
/// write) and rolled back when it goes without `commit`.
class DCISQLiteTransaction {
public:
    explicit DCISQLiteTransaction(DCISQLiteDatabase& database);
    ~DCISQLiteTransaction();
    DCISQLiteTransaction(const DCISQLiteTransaction&) = delete;
    DCISQLiteTransaction& operator=(const DCISQLiteTransaction&) = delete;

    /// Whether the transaction began.
    bool isActive() const { return active_; }
    bool commit();

private:
    DCISQLiteDatabase& database_;
    bool active_;
};
