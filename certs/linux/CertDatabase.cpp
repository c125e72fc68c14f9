#include "CertDatabase.h"

#include <openssl/evp.h>
#include <sqlite3.h>

#include <utility>

namespace ndpx::certs {

namespace {

constexpr int kSchemaVersion = 1;

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS certificates(
    id            INTEGER PRIMARY KEY AUTOINCREMENT,
    store         TEXT NOT NULL COLLATE NOCASE,
    thumbprint    TEXT NOT NULL,
    der           BLOB NOT NULL,
    friendly_name TEXT NOT NULL DEFAULT '',
    key_container TEXT NOT NULL DEFAULT '' COLLATE NOCASE,
    UNIQUE(store, thumbprint)
);
CREATE INDEX IF NOT EXISTS certificates_by_name ON certificates(store, friendly_name);
CREATE INDEX IF NOT EXISTS certificates_by_key ON certificates(key_container);
CREATE TABLE IF NOT EXISTS keys(
    container  TEXT NOT NULL COLLATE NOCASE PRIMARY KEY,
    der        BLOB NOT NULL,
    exportable INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS crls(
    id         INTEGER PRIMARY KEY AUTOINCREMENT,
    store      TEXT NOT NULL COLLATE NOCASE,
    thumbprint TEXT NOT NULL,
    der        BLOB NOT NULL,
    UNIQUE(store, thumbprint)
);
PRAGMA user_version = 1;
)sql";

using platform::sqlite::bindText;
using platform::sqlite::columnText;
using platform::sqlite::prepare;
using platform::sqlite::StmtPtr;

bool bindBlob(sqlite3_stmt* stmt, int index, const Bytes& blob) {
    // A zero-length blob must still be a blob, not NULL.
    static const std::uint8_t kEmpty = 0;
    return sqlite3_bind_blob64(stmt, index, blob.empty() ? &kEmpty : blob.data(), blob.size(),
                               SQLITE_TRANSIENT) == SQLITE_OK;
}

Bytes columnBlob(sqlite3_stmt* stmt, int col) {
    const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt, col));
    const auto n = static_cast<std::size_t>(sqlite3_column_bytes(stmt, col));
    return p == nullptr ? Bytes() : Bytes(p, p + n);
}

bool stepDone(sqlite3_stmt* stmt) {
    return sqlite3_step(stmt) == SQLITE_DONE;
}

std::optional<std::vector<CertDatabase::CertRow>> readRows(sqlite3_stmt* stmt) {
    std::vector<CertDatabase::CertRow> rows;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        CertDatabase::CertRow row;
        row.id = sqlite3_column_int64(stmt, 0);
        row.store = columnText(stmt, 1);
        row.der = columnBlob(stmt, 2);
        row.friendlyName = columnText(stmt, 3);
        row.keyContainer = columnText(stmt, 4);
        rows.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) {
        return std::nullopt;
    }
    return rows;
}

constexpr const char* kSelectRows =
    "SELECT id, store, der, friendly_name, key_container FROM certificates ";

}  // namespace

std::string sha256Hex(const Bytes& der) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(der.data(), der.size(), md, &n, EVP_sha256(), nullptr) != 1) {
        return {};
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < n; ++i) {
        out += kDigits[md[i] >> 4];
        out += kDigits[md[i] & 0x0f];
    }
    return out;
}

CertDatabase::CertDatabase(platform::sqlite::DbPtr db) : db_(std::move(db)) {}
CertDatabase::~CertDatabase() = default;

std::unique_ptr<CertDatabase> CertDatabase::open(const std::string& file, std::string& error) {
    if (file.empty()) {
        error = "no certificate store file given";
        return nullptr;
    }
    // One connection per operation; a committed swap survives a power cut.
    auto raw = platform::sqlite::openDatabase(file, {.durableCommits = true}, error);
    if (!raw) {
        return nullptr;
    }
    std::unique_ptr<CertDatabase> db(new CertDatabase(std::move(raw)));
    StmtPtr version = prepare(db->db_.get(), "PRAGMA user_version");
    const bool current = version && sqlite3_step(version.get()) == SQLITE_ROW &&
                         sqlite3_column_int(version.get(), 0) == kSchemaVersion;
    version.reset();
    if (!current) {
        Transaction tx(*db);
        if (!tx.begun() || !db->exec(kSchema) || !tx.commit()) {
            error = "cannot create the tables in " + file + ": " + db->errorText();
            return nullptr;
        }
    }
    return db;
}

bool CertDatabase::exec(const char* sql) {
    return platform::sqlite::exec(db_.get(), sql);
}

int CertDatabase::errorCode() const {
    return sqlite3_extended_errcode(db_.get());
}

std::string CertDatabase::errorText() const {
    return sqlite3_errmsg(db_.get());
}

CertDatabase::Transaction::Transaction(CertDatabase& db) : db_(db) {
    begun_ = db_.exec("BEGIN IMMEDIATE");
}

CertDatabase::Transaction::~Transaction() {
    if (begun_ && !committed_) {
        db_.exec("ROLLBACK");
    }
}

bool CertDatabase::Transaction::commit() {
    committed_ = begun_ && db_.exec("COMMIT");
    return committed_;
}

std::optional<std::vector<CertDatabase::CertRow>> CertDatabase::certificates(
    const std::string& store) {
    const std::string sql =
        std::string(kSelectRows) + (store.empty() ? "" : "WHERE store = ?1 ") + "ORDER BY id";
    StmtPtr stmt = prepare(db_.get(), sql.c_str());
    if (!stmt || (!store.empty() && !bindText(stmt.get(), 1, store))) {
        return std::nullopt;
    }
    return readRows(stmt.get());
}

std::optional<std::vector<CertDatabase::CertRow>> CertDatabase::certificatesNamed(
    const std::string& store, const std::string& friendlyName) {
    const std::string sql =
        std::string(kSelectRows) + "WHERE store = ?1 AND friendly_name = ?2 ORDER BY id";
    StmtPtr stmt = prepare(db_.get(), sql.c_str());
    if (!stmt || !bindText(stmt.get(), 1, store) || !bindText(stmt.get(), 2, friendlyName)) {
        return std::nullopt;
    }
    return readRows(stmt.get());
}

bool CertDatabase::putCertificate(const std::string& store, const Bytes& der,
                                  const std::string& friendlyName, const std::string& keyContainer,
                                  std::int64_t& id) {
    const std::string thumbprint = sha256Hex(der);
    StmtPtr stmt = prepare(db_.get(),
                           "INSERT INTO certificates(store, thumbprint, der, friendly_name, "
                           "key_container) VALUES(?1, ?2, ?3, ?4, ?5) "
                           "ON CONFLICT(store, thumbprint) DO UPDATE SET der = excluded.der, "
                           "friendly_name = excluded.friendly_name, "
                           "key_container = excluded.key_container RETURNING id");
    if (!stmt || thumbprint.empty() || !bindText(stmt.get(), 1, store) ||
        !bindText(stmt.get(), 2, thumbprint) || !bindBlob(stmt.get(), 3, der) ||
        !bindText(stmt.get(), 4, friendlyName) || !bindText(stmt.get(), 5, keyContainer) ||
        sqlite3_step(stmt.get()) != SQLITE_ROW) {
        return false;
    }
    id = sqlite3_column_int64(stmt.get(), 0);
    return stepDone(stmt.get());
}

bool CertDatabase::deleteCertificate(std::int64_t id) {
    StmtPtr stmt = prepare(db_.get(), "DELETE FROM certificates WHERE id = ?1");
    return stmt && sqlite3_bind_int64(stmt.get(), 1, id) == SQLITE_OK && stepDone(stmt.get()) &&
           sqlite3_changes(db_.get()) == 1;
}

bool CertDatabase::setFriendlyName(std::int64_t id, const std::string& friendlyName) {
    StmtPtr stmt = prepare(db_.get(), "UPDATE certificates SET friendly_name = ?2 WHERE id = ?1");
    return stmt && sqlite3_bind_int64(stmt.get(), 1, id) == SQLITE_OK &&
           bindText(stmt.get(), 2, friendlyName) && stepDone(stmt.get()) &&
           sqlite3_changes(db_.get()) == 1;
}

bool CertDatabase::setKeyContainer(std::int64_t id, const std::string& container) {
    StmtPtr stmt = prepare(db_.get(), "UPDATE certificates SET key_container = ?2 WHERE id = ?1");
    return stmt && sqlite3_bind_int64(stmt.get(), 1, id) == SQLITE_OK &&
           bindText(stmt.get(), 2, container) && stepDone(stmt.get()) &&
           sqlite3_changes(db_.get()) == 1;
}

bool CertDatabase::certificateExists(std::int64_t id) {
    StmtPtr stmt = prepare(db_.get(), "SELECT 1 FROM certificates WHERE id = ?1");
    return stmt && sqlite3_bind_int64(stmt.get(), 1, id) == SQLITE_OK &&
           sqlite3_step(stmt.get()) == SQLITE_ROW;
}

bool CertDatabase::putKey(const std::string& container, const SecretBytes& der, bool exportable) {
    StmtPtr stmt = prepare(db_.get(),
                           "INSERT INTO keys(container, der, exportable) VALUES(?1, ?2, ?3) "
                           "ON CONFLICT(container) DO UPDATE SET der = excluded.der, "
                           "exportable = excluded.exportable");
    return stmt && bindText(stmt.get(), 1, container) && !der.empty() &&
           sqlite3_bind_blob64(stmt.get(), 2, der.data(), der.size(), SQLITE_TRANSIENT) ==
               SQLITE_OK &&
           sqlite3_bind_int(stmt.get(), 3, exportable ? 1 : 0) == SQLITE_OK && stepDone(stmt.get());
}

std::optional<CertDatabase::KeyRow> CertDatabase::key(const std::string& container) {
    StmtPtr stmt = prepare(db_.get(), "SELECT der, exportable FROM keys WHERE container = ?1");
    if (!stmt || !bindText(stmt.get(), 1, container) || sqlite3_step(stmt.get()) != SQLITE_ROW) {
        return std::nullopt;
    }
    KeyRow row;
    const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt.get(), 0));
    row.der.assign(p, p + sqlite3_column_bytes(stmt.get(), 0));
    row.exportable = sqlite3_column_int(stmt.get(), 1) != 0;
    return row;
}

bool CertDatabase::setKeyExportable(const std::string& container, bool exportable, bool& found) {
    StmtPtr stmt = prepare(db_.get(), "UPDATE keys SET exportable = ?2 WHERE container = ?1");
    const bool ok = stmt && bindText(stmt.get(), 1, container) &&
                    sqlite3_bind_int(stmt.get(), 2, exportable ? 1 : 0) == SQLITE_OK &&
                    stepDone(stmt.get());
    found = ok && sqlite3_changes(db_.get()) == 1;
    return ok;
}

bool CertDatabase::deleteKeyIfUnbound(const std::string& container) {
    if (container.empty()) {
        return true;
    }
    StmtPtr stmt = prepare(db_.get(),
                           "DELETE FROM keys WHERE container = ?1 AND NOT EXISTS "
                           "(SELECT 1 FROM certificates WHERE key_container = ?1)");
    return stmt && bindText(stmt.get(), 1, container) && stepDone(stmt.get());
}

bool CertDatabase::putCrl(const std::string& store, const Bytes& der) {
    const std::string thumbprint = sha256Hex(der);
    StmtPtr stmt = prepare(db_.get(),
                           "INSERT INTO crls(store, thumbprint, der) VALUES(?1, ?2, ?3) "
                           "ON CONFLICT(store, thumbprint) DO NOTHING");
    return stmt && !thumbprint.empty() && bindText(stmt.get(), 1, store) &&
           bindText(stmt.get(), 2, thumbprint) && bindBlob(stmt.get(), 3, der) &&
           stepDone(stmt.get());
}

std::optional<std::vector<Bytes>> CertDatabase::crls() {
    StmtPtr stmt = prepare(db_.get(), "SELECT der FROM crls ORDER BY id");
    if (!stmt) {
        return std::nullopt;
    }
    std::vector<Bytes> out;
    int rc;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        out.push_back(columnBlob(stmt.get(), 0));
    }
    if (rc != SQLITE_DONE) {
        return std::nullopt;
    }
    return out;
}

}  // namespace ndpx::certs
