#pragma once
// Opening the agent's SQLite files one way: created 0600 (directories 0700)
// before SQLite sees them, WAL, a busy time-out, deleted data overwritten.
// Owners and small helpers for connections and statements. SQLite itself is
// not included here: users link and include it themselves.

#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace ndpx::platform::sqlite {

struct DbCloser {
    void operator()(sqlite3* db) const;
};
using DbPtr = std::unique_ptr<sqlite3, DbCloser>;

struct StmtFinalizer {
    void operator()(sqlite3_stmt* stmt) const;
};
using StmtPtr = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

// How long a connection waits for another writer's lock.
constexpr int kBusyTimeoutMs = 5000;

struct OpenOptions {
    // One connection used by several threads (SQLite serialises the calls);
    // otherwise a connection is used by one thread at a time.
    bool sharedConnection = false;
    // Commits survive a power cut, not only the death of the process.
    bool durableCommits = false;
};

// Opens `file` read-write, creating it and its directories as needed, with
// extended result codes, the busy time-out, WAL and secure_delete. An
// existing file of ours that others may read is tightened to 0600.
// ":memory:" opens a private in-memory database. Null with `error` set.
DbPtr openDatabase(const std::string& file, const OpenOptions& options, std::string& error);

// Why the last call on `db` failed: SQLite's text, with the system's error
// or SQLite's extended code when there is one ("disk I/O error (extended
// code 778)", a failed write).
std::string errorText(sqlite3* db);

// Runs one or more statements that return no rows.
bool exec(sqlite3* db, const char* sql);

// Null on failure (sqlite3_errmsg tells why). `flags`: SQLITE_PREPARE_*.
StmtPtr prepare(sqlite3* db, std::string_view sql, unsigned flags = 0);

// Binds UTF-8 text (copied); an empty view binds '' rather than NULL.
bool bindText(sqlite3_stmt* stmt, int index, std::string_view text);

// The column as text; empty for NULL.
std::string columnText(sqlite3_stmt* stmt, int col);

}  // namespace ndpx::platform::sqlite
