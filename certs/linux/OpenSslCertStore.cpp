// OpenSslCertStore: construction, the two kinds of store handle, and
// listing, finding and reading out stored certificates.

#include "certs/linux/OpenSslCertStore.h"

#include "StoreInternals.h"

#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <algorithm>
#include <cctype>

namespace ndpx::certs {

namespace {

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

// What the friendly-name match compares: the friendly name, or the common
// name for a certificate without one.
std::string displayName(const CertContext& context) {
    return context.friendlyName.empty() ? commonNameOf(x509Of(context)) : context.friendlyName;
}

}  // namespace

std::unique_ptr<CertDatabase> openCertDatabase(const std::string& file, const char* who) {
    std::string error;
    auto db = CertDatabase::open(file, error);
    if (!db) {
        MFW_LOG(4, "OpenSslCertStore::%s(): Unable to open the certificate database: %s", who,
                error.c_str());
    }
    return db;
}

std::vector<CertContext> rowsToContexts(const std::vector<CertDatabase::CertRow>& rows,
                                        const CertStorePtr& store) {
    std::vector<CertContext> out;
    out.reserve(rows.size());
    for (const auto& row : rows) {
        CertificatePtr cert = certificateOf(x509FromDer(row.der));
        if (!cert) {
            MFW_LOG(3, "OpenSslCertStore::EnumerateCertificates(): Skipping unreadable entry %lld",
                    static_cast<long long>(row.id));
            continue;
        }
        CertContext context(std::move(cert));
        context.store = store;
        context.friendlyName = row.friendlyName;
        context.keyContainer = row.keyContainer;
        context.id = row.id;
        out.push_back(std::move(context));
    }
    return out;
}

std::int64_t MemoryStoreHandle::put(const CertificatePtr& cert, const std::string& friendlyName,
                                    const std::string& keyContainer) {
    std::lock_guard lock(mutex_);
    for (auto& entry : entries_) {
        if (X509_cmp(x509Of(entry.cert), x509Of(cert)) == 0) {
            entry.friendlyName = friendlyName;
            entry.keyContainer = keyContainer;
            return entry.id;
        }
    }
    entries_.push_back(Entry{cert, friendlyName, keyContainer, nextId_});
    return nextId_++;
}

bool MemoryStoreHandle::remove(std::int64_t id) {
    std::lock_guard lock(mutex_);
    const auto it =
        std::find_if(entries_.begin(), entries_.end(), [id](const Entry& e) { return e.id == id; });
    if (it == entries_.end()) {
        return false;
    }
    entries_.erase(it);
    return true;
}

bool MemoryStoreHandle::setKeyContainer(std::int64_t id, const std::string& keyContainer) {
    std::lock_guard lock(mutex_);
    for (auto& entry : entries_) {
        if (entry.id == id) {
            entry.keyContainer = keyContainer;
            return true;
        }
    }
    return false;
}

std::vector<CertContext> MemoryStoreHandle::contexts(const CertStorePtr& self) const {
    std::vector<CertContext> out;
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
        CertContext context(entry.cert);
        context.store = self;
        context.friendlyName = entry.friendlyName;
        context.keyContainer = entry.keyContainer;
        context.id = entry.id;
        out.push_back(std::move(context));
    }
    return out;
}

OpenSslCertStore::OpenSslCertStore() : OpenSslCertStore(Options{}) {}

OpenSslCertStore::OpenSslCertStore(Options options)
    : options_(std::move(options)), impl_(std::make_unique<Impl>()) {
    if (options_.databaseFile.empty()) {
        options_.databaseFile = platform::paths::certStoreFile().string();
    }
}

OpenSslCertStore::~OpenSslCertStore() = default;

CertStorePtr OpenSslCertStore::OpenCertificateStore(const std::string& storeName) {
    if (storeName.empty()) {
        MFW_LOG(4, "OpenSslCertStore::OpenCertificateStore(): Empty certificate store name.");
        return nullptr;
    }
    if (!openCertDatabase(options_.databaseFile, "OpenCertificateStore")) {
        return nullptr;
    }
    return std::make_shared<DbStoreHandle>(storeName, options_.databaseFile);
}

CertStorePtr OpenSslCertStore::OpenMemoryStore() {
    return std::make_shared<MemoryStoreHandle>();
}

std::vector<CertContext> OpenSslCertStore::EnumerateCertificates(const CertStorePtr& store) {
    if (const auto* memory = dynamic_cast<const MemoryStoreHandle*>(store.get())) {
        return memory->contexts(store);
    }
    const auto* named = dynamic_cast<const DbStoreHandle*>(store.get());
    if (named == nullptr) {
        MFW_LOG(4, "OpenSslCertStore::EnumerateCertificates(): No certificate store provided.");
        return {};
    }
    auto db = openCertDatabase(named->file(), "EnumerateCertificates");
    const auto rows = db ? db->certificates(named->name()) : std::nullopt;
    if (!rows) {
        MFW_LOG(4, "OpenSslCertStore::EnumerateCertificates(): Unable to read store %s: %s",
                named->name().c_str(), db ? db->errorText().c_str() : "not open");
        return {};
    }
    return rowsToContexts(*rows, store);
}

std::optional<CertContext> OpenSslCertStore::FindCertificate(const CertStorePtr& store,
                                                             const std::string& friendlyName,
                                                             const std::string& commonName) {
    if (!store) {
        MFW_LOG(4, "OpenSslCertStore::FindCertificate(): NULL Certificate store provided.");
        return std::nullopt;
    }
    if (friendlyName.empty()) {
        MFW_LOG(4, "OpenSslCertStore::FindCertificate(): NULL Certificate name provided.");
        return std::nullopt;
    }
    const std::string wantedCn = trimTrailingWhitespace(commonName);
    for (auto& context : EnumerateCertificates(store)) {
        const std::string name = displayName(context);
        if (name != friendlyName) {
            MFW_LOG(0, "OpenSslCertStore::FindCertificate(): Skipping certificate with name '%s'",
                    name.c_str());
            continue;
        }
        MFW_LOG(1,
                "OpenSslCertStore::FindCertificate(): Found matching certificate with friendly "
                "name=%s",
                friendlyName.c_str());
        if (commonName.empty()) {
            return std::move(context);
        }
        const std::string cn = trimTrailingWhitespace(commonNameOf(x509Of(context)));
        if (equalsIgnoreCase(cn, wantedCn)) {
            MFW_LOG(1,
                    "OpenSslCertStore::FindCertificate(): Found matching certificate with common "
                    "name=%s",
                    cn.c_str());
            return std::move(context);
        }
        MFW_LOG(1, "OpenSslCertStore::FindCertificate(): Ignoring cert with CN mismatch: %s",
                cn.c_str());
    }
    MFW_LOG(3,
            "OpenSslCertStore::FindCertificate(): Certificate with friendly name '%s' and common "
            "name '%s' not found. err=%s",
            friendlyName.c_str(), commonName.empty() ? "n/a" : commonName.c_str(),
            "no matching certificate");
    return std::nullopt;
}

bool OpenSslCertStore::RetrieveCACertificateChainFromStore(const std::string& storeName,
                                                           const std::string& friendlyName,
                                                           std::vector<std::string>& caChainPem) {
    caChainPem.clear();
    const CertStorePtr store = storeName.empty() ? nullptr : OpenCertificateStore(storeName);
    const auto context =
        store && !friendlyName.empty() ? FindCertificate(store, friendlyName, {}) : std::nullopt;
    if (!context) {
        MFW_LOG(4,
                "OpenSslCertStore::RetrieveCACertificateChainFromStore(): Unable to find the "
                "certificate with friendly name=%s.",
                friendlyName.c_str());
        return false;
    }
    return RetrieveCACertificateChain(*context, store, caChainPem);
}

std::shared_ptr<CertUtilityInterface> makePlatformCertStore() {
    return std::make_shared<OpenSslCertStore>();
}

}  // namespace ndpx::certs
