#include <platform/SettingsStore.h>
#include <platform/SqliteDatabase.h>

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <mutex>

namespace ndpx::platform {

namespace {

// Registry type numbers, so that the table reads naturally next to .reg files.
constexpr int kTypeString = 1;
constexpr int kTypeDword = 4;
constexpr int kTypeMulti = 7;

using sqlite::columnText;
using sqlite::DbPtr;
using sqlite::StmtPtr;

// Resets and unbinds a cached statement when the call that used it returns.
class StmtUse {
public:
    explicit StmtUse(sqlite3_stmt* stmt) : stmt_(stmt) {}
    ~StmtUse() {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
    StmtUse(const StmtUse&) = delete;
    StmtUse& operator=(const StmtUse&) = delete;

    sqlite3_stmt* get() const { return stmt_; }
    bool bind(int index, std::string_view text) { return sqlite::bindText(stmt_, index, text); }

private:
    sqlite3_stmt* stmt_;
};

// Multi-strings are stored as each string followed by a NUL byte, the
// registry's own layout, so commas and newlines inside the strings survive.
std::string encodeMulti(const std::vector<std::string>& strings) {
    std::string blob;
    for (const auto& s : strings) {
        blob += s;
        blob += '\0';
    }
    return blob;
}

std::vector<std::string> decodeMulti(std::string_view blob) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < blob.size()) {
        std::size_t end = blob.find('\0', pos);
        if (end == std::string_view::npos) {
            end = blob.size();  // tolerate a missing final terminator
        }
        out.emplace_back(blob.substr(pos, end - pos));
        pos = end + 1;
    }
    return out;
}

std::optional<SettingValue> readValue(sqlite3_stmt* stmt, int typeCol, int dataCol) {
    switch (sqlite3_column_int(stmt, typeCol)) {
        case kTypeString:
            return SettingValue::ofString(columnText(stmt, dataCol));
        case kTypeDword:
            return SettingValue::ofDword(
                static_cast<std::uint32_t>(sqlite3_column_int64(stmt, dataCol)));
        case kTypeMulti: {
            const void* p = sqlite3_column_blob(stmt, dataCol);
            const auto n = static_cast<std::size_t>(sqlite3_column_bytes(stmt, dataCol));
            return SettingValue::ofMulti(
                decodeMulti(p == nullptr ? std::string_view()
                                         : std::string_view(static_cast<const char*>(p), n)));
        }
        default:
            return std::nullopt;
    }
}

bool lessIgnoreCase(const std::string& a, const std::string& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) <
               std::tolower(static_cast<unsigned char>(y));
    });
}

bool equalIgnoreCase(const std::string& a, const std::string& b) {
    return !lessIgnoreCase(a, b) && !lessIgnoreCase(b, a);
}

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS keys(
    path TEXT NOT NULL COLLATE NOCASE PRIMARY KEY
);
CREATE TABLE IF NOT EXISTS vals(
    key  TEXT NOT NULL COLLATE NOCASE,
    name TEXT NOT NULL COLLATE NOCASE,
    type INTEGER NOT NULL,
    data,
    PRIMARY KEY(key, name)
);
)sql";

// The row's key is `?1` or any key below it, compared without case.
std::string inSubtree(const std::string& column) {
    return "(" + column + " = ?1 OR substr(" + column +
           ", 1, length(?1) + 1) = (?1 || '\\') COLLATE NOCASE)";
}

class SqliteSettingsStore final : public SettingsStore {
public:
    SqliteSettingsStore(DbPtr db, std::string file) : file_(std::move(file)), db_(std::move(db)) {}

    bool prepareAll(std::string& error) {
        const std::string subtreeVals = inSubtree("key");
        const std::string subtreeKeys = inSubtree("path");
        const std::pair<StmtPtr*, std::string> statements[] = {
            {&get_, "SELECT type, data FROM vals WHERE key = ?1 AND name = ?2"},
            {&insertKey_, "INSERT OR IGNORE INTO keys(path) VALUES(?1)"},
            {&upsert_,
             "INSERT INTO vals(key, name, type, data) VALUES(?1, ?2, ?3, ?4) "
             "ON CONFLICT(key, name) DO UPDATE SET type = excluded.type, data = excluded.data"},
            {&removeValue_, "DELETE FROM vals WHERE key = ?1 AND name = ?2"},
            {&removeTreeVals_, "DELETE FROM vals WHERE " + subtreeVals},
            {&removeTreeKeys_, "DELETE FROM keys WHERE " + subtreeKeys},
            {&keyExists_, "SELECT 1 FROM keys WHERE path = ?1"},
            {&listValues_, "SELECT name, type, data FROM vals WHERE key = ?1 ORDER BY name"},
            {&listKeys_, "SELECT path FROM keys"},
            {&listSubtreeKeys_, "SELECT path FROM keys WHERE " + subtreeKeys},
            {&dataVersion_, "PRAGMA data_version"},
            {&checkpoint_, "PRAGMA wal_checkpoint(TRUNCATE)"},
            {&begin_, "BEGIN IMMEDIATE"},
            {&commit_, "COMMIT"},
            {&rollback_, "ROLLBACK"},
        };
        for (const auto& [target, sql] : statements) {
            *target = sqlite::prepare(db_.get(), sql, SQLITE_PREPARE_PERSISTENT);
            if (!*target) {
                error = std::string("cannot prepare statement: ") + sqlite3_errmsg(db_.get());
                return false;
            }
        }
        return true;
    }

    std::optional<SettingValue> get(std::string_view key, std::string_view name) override {
        const std::string k = normalizeKeyPath(key);
        std::lock_guard lock(mutex_);
        StmtUse q(get_.get());
        if (!q.bind(1, k) || !q.bind(2, name) || sqlite3_step(q.get()) != SQLITE_ROW) {
            return std::nullopt;
        }
        return readValue(q.get(), 0, 1);
    }

    bool set(std::string_view key, std::string_view name, const SettingValue& value) override {
        const std::string k = normalizeKeyPath(key);
        if (k.empty()) {
            return false;
        }
        std::string data;
        int type = kTypeString;
        switch (value.type) {
            case SettingValue::Type::String:
                data = value.text;
                break;
            case SettingValue::Type::Dword:
                type = kTypeDword;
                break;
            case SettingValue::Type::MultiString:
                type = kTypeMulti;
                // A NUL inside a string would end it early when read back.
                for (const auto& s : value.multi) {
                    if (s.find('\0') != std::string::npos) {
                        return false;
                    }
                }
                data = encodeMulti(value.multi);
                break;
        }
        std::lock_guard lock(mutex_);
        Transaction tx(*this);
        if (!tx.begun() || !insertKeyAndParents(k)) {
            return failed();
        }
        {
            StmtUse q(upsert_.get());
            if (!q.bind(1, k) || !q.bind(2, name) ||
                sqlite3_bind_int(q.get(), 3, type) != SQLITE_OK) {
                return failed();
            }
            int rc = SQLITE_OK;
            if (type == kTypeDword) {
                rc = sqlite3_bind_int64(q.get(), 4, value.dword);
            } else if (type == kTypeMulti) {
                rc = sqlite3_bind_blob64(q.get(), 4, data.data(), data.size(), SQLITE_TRANSIENT);
            } else {
                rc = q.bind(4, data) ? SQLITE_OK : SQLITE_ERROR;
            }
            if (rc != SQLITE_OK || sqlite3_step(q.get()) != SQLITE_DONE) {
                return failed();
            }
        }
        return tx.commit() || failed();
    }

    bool remove(std::string_view key, std::string_view name) override {
        const std::string k = normalizeKeyPath(key);
        std::lock_guard lock(mutex_);
        StmtUse q(removeValue_.get());
        if (!q.bind(1, k) || !q.bind(2, name) || sqlite3_step(q.get()) != SQLITE_DONE) {
            return failed();
        }
        if (sqlite3_changes(db_.get()) > 0) {
            ++counter_;
        }
        return true;
    }

    bool removeKey(std::string_view key) override {
        const std::string k = normalizeKeyPath(key);
        if (k.empty()) {
            return false;  // never wipe the whole store by accident
        }
        std::lock_guard lock(mutex_);
        Transaction tx(*this);
        if (!tx.begun()) {
            return failed();
        }
        for (sqlite3_stmt* stmt : {removeTreeVals_.get(), removeTreeKeys_.get()}) {
            StmtUse q(stmt);
            if (!q.bind(1, k) || sqlite3_step(q.get()) != SQLITE_DONE) {
                return failed();
            }
        }
        return tx.commit() || failed();
    }

    bool createKey(std::string_view key) override {
        const std::string k = normalizeKeyPath(key);
        if (k.empty()) {
            return false;
        }
        std::lock_guard lock(mutex_);
        Transaction tx(*this);
        return (tx.begun() && insertKeyAndParents(k) && tx.commit()) || failed();
    }

    bool keyExists(std::string_view key) override {
        const std::string k = normalizeKeyPath(key);
        std::lock_guard lock(mutex_);
        StmtUse q(keyExists_.get());
        return q.bind(1, k) && sqlite3_step(q.get()) == SQLITE_ROW;
    }

    std::vector<std::pair<std::string, SettingValue>> listValues(std::string_view key) override {
        const std::string k = normalizeKeyPath(key);
        std::vector<std::pair<std::string, SettingValue>> out;
        std::lock_guard lock(mutex_);
        StmtUse q(listValues_.get());
        if (!q.bind(1, k)) {
            return out;
        }
        while (sqlite3_step(q.get()) == SQLITE_ROW) {
            if (auto v = readValue(q.get(), 1, 2)) {
                out.emplace_back(columnText(q.get(), 0), std::move(*v));
            }
        }
        return out;
    }

    std::vector<std::string> listSubkeys(std::string_view key) override {
        const std::string k = normalizeKeyPath(key);
        std::vector<std::string> names;
        {
            std::lock_guard lock(mutex_);
            StmtUse q(k.empty() ? listKeys_.get() : listSubtreeKeys_.get());
            if (!k.empty() && !q.bind(1, k)) {
                return names;
            }
            // Rows written by other tools may lack their parents, so the child
            // name is taken from any descendant, not only from direct children.
            const std::size_t skip = k.empty() ? 0 : k.size() + 1;
            while (sqlite3_step(q.get()) == SQLITE_ROW) {
                const std::string path = normalizeKeyPath(columnText(q.get(), 0));
                if (path.size() <= skip) {
                    continue;
                }
                const std::size_t end = path.find('\\', skip);
                names.push_back(path.substr(skip, end == std::string::npos ? end : end - skip));
            }
        }
        std::stable_sort(names.begin(), names.end(), lessIgnoreCase);
        names.erase(std::unique(names.begin(), names.end(), equalIgnoreCase), names.end());
        return names;
    }

    bool scrub() override {
        std::lock_guard lock(mutex_);
        // Copies the log's pages into the database file, where secure_delete
        // has already zeroed freed space, and truncates the log to nothing:
        // its frames would otherwise keep old page images until overwritten.
        StmtUse q(checkpoint_.get());
        return sqlite3_step(q.get()) == SQLITE_ROW && sqlite3_column_int(q.get(), 0) == 0;
    }

    std::string lastWriteError() override {
        std::lock_guard lock(mutex_);
        return lastWriteError_;
    }

    std::uint64_t changeCounter() override {
        std::lock_guard lock(mutex_);
        StmtUse q(dataVersion_.get());
        if (sqlite3_step(q.get()) == SQLITE_ROW) {
            const std::int64_t version = sqlite3_column_int64(q.get(), 0);
            if (version != lastDataVersion_) {
                lastDataVersion_ = version;
                ++counter_;
            }
        }
        return counter_;
    }

    std::unique_ptr<SettingsWatch> watch(std::function<void()> onChange) override {
        if (file_ == ":memory:") {
            return nullptr;  // nobody else can write it
        }
        return watchSqliteSettingsStore(file_, std::move(onChange));
    }

private:
    // BEGIN IMMEDIATE takes the write lock at once (waiting for other
    // writers up to the busy time-out); destruction without commit rolls back.
    class Transaction {
    public:
        explicit Transaction(SqliteSettingsStore& store) : store_(store) {
            StmtUse q(store_.begin_.get());
            begun_ = sqlite3_step(q.get()) == SQLITE_DONE;
        }
        ~Transaction() {
            if (begun_ && !committed_) {
                StmtUse q(store_.rollback_.get());
                sqlite3_step(q.get());
            }
        }
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;

        bool begun() const { return begun_; }
        bool commit() {
            StmtUse q(store_.commit_.get());
            committed_ = sqlite3_step(q.get()) == SQLITE_DONE;
            if (committed_) {
                ++store_.counter_;
            }
            return committed_;
        }

    private:
        SqliteSettingsStore& store_;
        bool begun_ = false;
        bool committed_ = false;
    };

    // Caller holds mutex_; notes why the connection's last call failed, before
    // a rollback replaces the reason. Always false.
    bool failed() {
        lastWriteError_ = file_ + ": " + sqlite::errorText(db_.get());
        return false;
    }

    // Caller holds mutex_ inside a transaction.
    bool insertKeyAndParents(const std::string& key) {
        std::size_t pos = 0;
        while (true) {
            const std::size_t end = key.find('\\', pos);
            StmtUse q(insertKey_.get());
            if (!q.bind(1, std::string_view(key).substr(0, end)) ||
                sqlite3_step(q.get()) != SQLITE_DONE) {
                return false;
            }
            if (end == std::string::npos) {
                return true;
            }
            pos = end + 1;
        }
    }

    const std::string file_;
    std::mutex mutex_;
    std::uint64_t counter_ = 0;
    std::int64_t lastDataVersion_ = -1;
    std::string lastWriteError_;
    // The connection outlives the statements declared after it.
    DbPtr db_;
    StmtPtr get_, insertKey_, upsert_, removeValue_, removeTreeVals_, removeTreeKeys_, keyExists_,
        listValues_, listKeys_, listSubtreeKeys_, dataVersion_, checkpoint_, begin_, commit_,
        rollback_;
};

}  // namespace

std::unique_ptr<SettingsStore> openSqliteSettingsStore(const std::string& file,
                                                       std::string& error) {
    if (file.empty()) {
        error = "no settings store file given";
        return nullptr;
    }
    // The store object is shared by the process's threads.
    DbPtr db = sqlite::openDatabase(file, {.sharedConnection = true}, error);
    if (!db) {
        return nullptr;
    }
    if (!sqlite::exec(db.get(), kSchema)) {
        error = "cannot create the tables in " + file + ": " + sqlite3_errmsg(db.get());
        return nullptr;
    }
    auto store = std::make_unique<SqliteSettingsStore>(std::move(db), file);
    if (!store->prepareAll(error)) {
        return nullptr;
    }
    return store;
}

}  // namespace ndpx::platform
