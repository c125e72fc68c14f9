#pragma once
// Parts of OpenSslCertStore shared by its source files: the two kinds of
// store handle and the helpers every operation uses.

#include "CertDatabase.h"
#include "certs/OpenSslUtil.h"
#include "certs/linux/OpenSslCertStore.h"

#include <mutex>

namespace ndpx::certs {

// A named store of the database.
class DbStoreHandle final : public CertStoreHandle {
public:
    DbStoreHandle(std::string name, std::string file)
        : name_(std::move(name)), file_(std::move(file)) {}
    const std::string& name() const override { return name_; }
    bool inMemory() const override { return false; }
    const std::string& file() const { return file_; }

private:
    const std::string name_;
    const std::string file_;
};

// A store that lives in this process only, as long as its handle.
class MemoryStoreHandle final : public CertStoreHandle {
public:
    const std::string& name() const override { return name_; }
    bool inMemory() const override { return true; }

    // Adds `cert`, or replaces the entry of the same certificate. Answers its id.
    std::int64_t put(const CertificatePtr& cert, const std::string& friendlyName,
                     const std::string& keyContainer);
    bool remove(std::int64_t id);
    bool setKeyContainer(std::int64_t id, const std::string& keyContainer);
    // The entries as contexts that point back at `self`.
    std::vector<CertContext> contexts(const CertStorePtr& self) const;

private:
    struct Entry {
        CertificatePtr cert;
        std::string friendlyName;
        std::string keyContainer;
        std::int64_t id = 0;
    };
    const std::string name_;
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::int64_t nextId_ = 1;
};

class OpenSslCertStore::Impl {
public:
    // The chain of `leaf` built from the database's stores, the system roots
    // and `additional`; see BuildCertificateChain. With `crls`, every
    // certificate below the root is checked for revocation against them.
    CertChainPtr buildChain(const Options& options, const CertContext& leaf,
                            const CertStorePtr& additional, const std::vector<CrlPtr>* crls,
                            std::string& error);
};

// The CA certificates of a built chain as PEM, issuer first, root last.
bool caChainOf(const CertChain& chain, std::vector<std::string>& caChainPem);
// The top of a built chain as PEM; logs as RetrieveRootCACertificate.
bool rootOf(const CertChain& chain, std::string& rootCaPem);

// Opens the database; logs for `who` (a method name) on failure.
std::unique_ptr<CertDatabase> openCertDatabase(const std::string& file, const char* who);

// The contexts of a database row set; rows that do not parse are skipped.
std::vector<CertContext> rowsToContexts(const std::vector<CertDatabase::CertRow>& rows,
                                        const CertStorePtr& store);

// The key in `keyBlob`, checked against `cert`, in the form it is kept.
// Logs as SetPrivateKeyForCertificateInStore.
bool keyForCertificate(X509* cert, const std::vector<std::uint8_t>& keyBlob,
                       const std::string& container, SecretBytes& der);

inline constexpr const char* kRootStoreName = "Root";
// Where fetched CRLs are kept.
inline constexpr const char* kCaStoreName = "CA";

}  // namespace ndpx::certs
