#include <platform/Paths.h>
#include <platform/SqliteDatabase.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace ndpx::platform::sqlite {

namespace {

constexpr const char* kInMemory = ":memory:";

// Creates the database file with mode 0600 before SQLite sees it: SQLite
// would create it with 0644, and gives its -wal and -shm files the mode of
// the database file.
bool createPrivateFile(const std::string& file, std::string& error) {
    const std::filesystem::path path(file);
    if (path.has_parent_path() && !paths::createSecureDirectories(path.parent_path(), error)) {
        return false;
    }
    const UniqueFd fd(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd) {
        if (errno == EEXIST) {
            // A file made by another tool may be readable by others: tighten
            // it when it is ours, leave it alone otherwise.
            struct stat st {};
            if (::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
                (st.st_mode & 077) != 0) {
                ::chmod(file.c_str(), st.st_mode & 0700);
            }
            return true;
        }
        error = "cannot create " + file + ": " + std::generic_category().message(errno);
        return false;
    }
    if (::fchmod(fd.get(), 0600) != 0) {
        error = "cannot set the mode of " + file + ": " + std::generic_category().message(errno);
        return false;
    }
    return true;
}

// Switches to WAL and checks that it took: SQLite answers the mode it kept
// rather than failing when a file system cannot do WAL.
bool switchToWal(sqlite3* db, std::string& error) {
    const StmtPtr stmt = prepare(db, "PRAGMA journal_mode=WAL");
    if (!stmt || sqlite3_step(stmt.get()) != SQLITE_ROW) {
        error = errorText(db);
        return false;
    }
    const std::string mode = columnText(stmt.get(), 0);
    if (mode != "wal") {
        error = "journal mode is " + mode;
        return false;
    }
    return true;
}

}  // namespace

void DbCloser::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

void StmtFinalizer::operator()(sqlite3_stmt* stmt) const {
    sqlite3_finalize(stmt);
}

DbPtr openDatabase(const std::string& file, const OpenOptions& options, std::string& error) {
    const bool inMemory = file == kInMemory;
    if (!inMemory && !createPrivateFile(file, error)) {
        return nullptr;
    }
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(
        file.c_str(), &raw,
        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE |
            (options.sharedConnection ? SQLITE_OPEN_FULLMUTEX : SQLITE_OPEN_NOMUTEX),
        nullptr);
    DbPtr db(raw);
    if (rc != SQLITE_OK) {
        error = "cannot open " + file + ": " +
                (raw != nullptr ? sqlite3_errmsg(raw) : sqlite3_errstr(rc));
        return nullptr;
    }
    sqlite3_extended_result_codes(raw, 1);
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    if (!inMemory && !switchToWal(raw, error)) {
        error = "cannot switch " + file + " to WAL: " + error;
        return nullptr;
    }
    // Deleted data (used passwords, removed keys) must not linger in free
    // pages.
    if (!exec(raw, "PRAGMA secure_delete=ON") ||
        (options.durableCommits && !exec(raw, "PRAGMA synchronous=FULL"))) {
        error = "cannot configure " + file + ": " + errorText(raw);
        return nullptr;
    }
    return db;
}

std::string errorText(sqlite3* db) {
    std::string text = sqlite3_errmsg(db);
    // SQLite keeps the system's error only for some failures (a file it
    // could not open); otherwise its extended code tells the operation.
    const int code = sqlite3_extended_errcode(db);
    const int osError = sqlite3_system_errno(db);
    if (osError != 0 && (code & 0xff) == SQLITE_CANTOPEN) {
        text += " (" + std::generic_category().message(osError) + ")";
    } else if (code != (code & 0xff)) {
        text += " (extended code " + std::to_string(code) + ")";
    }
    return text;
}

bool exec(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

StmtPtr prepare(sqlite3* db, std::string_view sql, unsigned flags) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), flags, &stmt, nullptr) !=
        SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    return StmtPtr(stmt);
}

bool bindText(sqlite3_stmt* stmt, int index, std::string_view text) {
    // A null pointer would bind SQL NULL, which matches nothing.
    const char* p = text.data() != nullptr ? text.data() : "";
    return sqlite3_bind_text64(stmt, index, p, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8) ==
           SQLITE_OK;
}

std::string columnText(sqlite3_stmt* stmt, int col) {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt, col));
    return p == nullptr ? std::string()
                        : std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)));
}

}  // namespace ndpx::platform::sqlite
