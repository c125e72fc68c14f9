#pragma once
// The certificate and key database: one SQLite file (WAL, mode 0600 in a
// 0700 directory) with the certificates of every named store, the private
// keys by container name and the CRLs. One connection per operation, so
// processes and threads share the file through SQLite's own locking.

#include "certs/OpenSslUtil.h"

#include <platform/SqliteDatabase.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::certs {

using Bytes = std::vector<std::uint8_t>;

class CertDatabase {
public:
    struct CertRow {
        std::int64_t id = 0;
        std::string store;
        Bytes der;
        std::string friendlyName;
        std::string keyContainer;
    };
    struct KeyRow {
        SecretBytes der;  // private key, type-specific DER (PKCS#1 for RSA)
        bool exportable = false;
    };

    // Opens (creating file, directories and tables as needed). Null with
    // `error` set on failure.
    static std::unique_ptr<CertDatabase> open(const std::string& file, std::string& error);
    ~CertDatabase();
    CertDatabase(const CertDatabase&) = delete;
    CertDatabase& operator=(const CertDatabase&) = delete;

    // BEGIN IMMEDIATE: the write lock is taken at once (waiting for other
    // writers up to the busy time-out). Destruction without commit rolls back.
    class Transaction {
    public:
        explicit Transaction(CertDatabase& db);
        ~Transaction();
        Transaction(const Transaction&) = delete;
        Transaction& operator=(const Transaction&) = delete;
        bool begun() const { return begun_; }
        bool commit();

    private:
        CertDatabase& db_;
        bool begun_ = false;
        bool committed_ = false;
    };

    // Certificates of `store` (every store when empty), in insertion order.
    std::optional<std::vector<CertRow>> certificates(const std::string& store);
    std::optional<std::vector<CertRow>> certificatesNamed(const std::string& store,
                                                          const std::string& friendlyName);
    // Adds a certificate, or replaces the row of the same certificate in that
    // store (properties included). Out: the row id.
    bool putCertificate(const std::string& store, const Bytes& der, const std::string& friendlyName,
                        const std::string& keyContainer, std::int64_t& id);
    bool deleteCertificate(std::int64_t id);
    bool setFriendlyName(std::int64_t id, const std::string& friendlyName);
    bool setKeyContainer(std::int64_t id, const std::string& container);
    bool certificateExists(std::int64_t id);

    bool putKey(const std::string& container, const SecretBytes& der, bool exportable);
    std::optional<KeyRow> key(const std::string& container);
    bool setKeyExportable(const std::string& container, bool exportable, bool& found);
    // Removes the key unless a certificate is still bound to it.
    bool deleteKeyIfUnbound(const std::string& container);

    bool putCrl(const std::string& store, const Bytes& der);
    std::optional<std::vector<Bytes>> crls();

    int errorCode() const;
    std::string errorText() const;

private:
    explicit CertDatabase(platform::sqlite::DbPtr db);
    bool exec(const char* sql);

    platform::sqlite::DbPtr db_;
};

// Lower-case hexadecimal SHA-256 of `der`, the identity of a certificate or
// CRL within a store.
std::string sha256Hex(const Bytes& der);

}  // namespace ndpx::certs
