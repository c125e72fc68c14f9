#include "certs/linux/OpenSslCertStore.h"

#include "StoreInternals.h"

#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string_view>

namespace ndpx::certs {

namespace {

std::atomic<OpenSslCertStore::TransactionHook> g_transactionHook{nullptr};

void transactionPoint(const char* point) {
    if (const auto hook = g_transactionHook.load()) {
        hook(point);
    }
}

int errorNumber(unsigned long code) {
    return static_cast<int>(code & 0x7fffffff);
}

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

// The characters of an ASN.1 PrintableString.
bool isPrintableString(const std::string& s) {
    return std::all_of(s.begin(), s.end(), [](unsigned char ch) {
        return std::isalnum(ch) || std::string_view(" '()+,-./:=?").find(static_cast<char>(ch)) !=
                                       std::string_view::npos;
    });
}

// Request subjects are PrintableStrings; a value with other characters (an
// agent identity has '_') is a UTF8String instead, so the request stays valid
// DER for strict parsers.
bool addSubjectEntry(X509_NAME* name, int nid, const std::string& value) {
    const int type = isPrintableString(value) ? V_ASN1_PRINTABLESTRING : MBSTRING_UTF8;
    return X509_NAME_add_entry_by_NID(name, nid, type,
                                      reinterpret_cast<const unsigned char*>(value.data()),
                                      static_cast<int>(value.size()), -1, 0) == 1;
}

// What the friendly-name match compares: the friendly name, or the common
// name for a certificate without one.
std::string displayName(const CertContext& context) {
    return context.friendlyName.empty() ? commonNameOf(context.cert.get()) : context.friendlyName;
}

// The key in `keyBlob`, checked against `cert`, in the form it is kept.
// Logs as SetPrivateKeyForCertificateInStore.
bool keyForCertificate(X509* cert, const std::vector<std::uint8_t>& keyBlob,
                       const std::string& container, SecretBytes& der) {
    if (cert == nullptr || keyBlob.empty() || container.empty()) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): Invalid parameters "
                "provided");
        return false;
    }
    const PkeyPtr key = keyFromBlob(keyBlob);
    if (!key) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): NCryptImportKey failed, "
                "returned=%d",
                errorNumber(takeOpenSslError()));
        return false;
    }
    if (X509_check_private_key(cert, key.get()) != 1) {
        ERR_clear_error();
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): The key in container %s "
                "does not belong to the certificate.",
                container.c_str());
        return false;
    }
    if (!keyToDer(key.get(), der)) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): NCryptFinalizeKey failed, "
                "returned=%d",
                errorNumber(takeOpenSslError()));
        return false;
    }
    return true;
}

// A parsed import: the certificate and, when it has one, its key.
struct PreparedImport {
    X509Ptr cert;
    std::vector<std::uint8_t> der;
    SecretBytes keyDer;
    std::string friendlyName;
    std::string container;
};

bool prepareImport(const CertUtilityInterface::Import& in, PreparedImport& out, const char* who) {
    out.cert = x509FromPem(in.certPem);
    out.der = x509ToDer(out.cert.get());
    if (!out.cert || out.der.empty()) {
        MFW_LOG(4, "OpenSslCertStore::%s(): Unable to decode the certificate.", who);
        return false;
    }
    out.friendlyName = in.friendlyName;
    if (!in.keyBlob.empty() || !in.container.empty()) {
        if (!keyForCertificate(out.cert.get(), in.keyBlob, in.container, out.keyDer)) {
            return false;
        }
        out.container = in.container;
    }
    return true;
}

// Writes a prepared import inside the caller's transaction.
bool writeImport(CertDatabase& db, const std::string& storeName, const PreparedImport& import,
                 std::int64_t& id) {
    if (!import.container.empty() && !db.putKey(import.container, import.keyDer, true)) {
        return false;
    }
    return db.putCertificate(storeName, import.der, import.friendlyName, import.container, id);
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
        X509Ptr cert = x509FromDer(row.der);
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

std::int64_t MemoryStoreHandle::put(X509* cert, const std::string& friendlyName,
                                    const std::string& keyContainer) {
    X509Ptr shared = shareX509(cert);
    std::lock_guard lock(mutex_);
    for (auto& entry : entries_) {
        if (X509_cmp(entry.cert.get(), cert) == 0) {
            entry.friendlyName = friendlyName;
            entry.keyContainer = keyContainer;
            return entry.id;
        }
    }
    entries_.push_back(Entry{std::move(shared), friendlyName, keyContainer, nextId_});
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
        CertContext context(shareX509(entry.cert.get()));
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

void OpenSslCertStore::setTransactionHookForTesting(TransactionHook hook) {
    g_transactionHook.store(hook);
}

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

bool OpenSslCertStore::GenerateKeyUsingWin32API(const std::string& container,
                                                std::vector<std::uint8_t>& keyBlob,
                                                std::vector<std::uint8_t>& pkcs1Der) {
    keyBlob.clear();
    pkcs1Der.clear();
    if (container.empty()) {
        MFW_LOG(4, "OpenSslCertStore::GenerateKeyUsingWin32API(): Empty container named provided.");
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "GenerateKeyUsingWin32API");
    if (!db) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptOpenStorageProvider failed, "
                "returned = %d",
                -1);
        return false;
    }
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptCreatePersistedKey failed, "
                "returned = %d.",
                errorNumber(takeOpenSslError()));
        return false;
    }
    if (EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), 2048) != 1) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptSetProperty failed, while "
                "setting size, returned = %d.",
                errorNumber(takeOpenSslError()));
        return false;
    }
    EVP_PKEY* raw = nullptr;
    if (EVP_PKEY_generate(ctx.get(), &raw) != 1) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptFinalizeKey failed, returned "
                "= %d.",
                errorNumber(takeOpenSslError()));
        return false;
    }
    const PkeyPtr key(raw);
    SecretBytes der;
    if (!keyToDer(key.get(), der)) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): CryptEncodeObject failed, "
                "error:0x%08lx.",
                takeOpenSslError());
        return false;
    }
    // Generated keys may be exported, also in plain text.
    if (!db->putKey(container, der, true)) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptFinalizeKey failed, returned "
                "= %d.",
                db->errorCode());
        return false;
    }
    if (!keyToBlob(key.get(), keyBlob)) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptExportKey failed, returned = "
                "%d.",
                errorNumber(takeOpenSslError()));
        return false;
    }
    MFW_LOG(1,
            "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptExportKey succeeded, size "
            "required=%d.",
            static_cast<int>(keyBlob.size()));
    pkcs1Der.assign(der.begin(), der.end());
    return true;
}

bool OpenSslCertStore::GenerateCSRUsingWin32API(const std::string& container,
                                                const std::string& commonName,
                                                const std::string& ou, const std::string& o,
                                                const std::string& st, const std::string& c,
                                                std::vector<std::uint8_t>& csrDer) {
    csrDer.clear();
    if (commonName.empty()) {
        MFW_LOG(4, "OpenSslCertStore::GenerateCSRUsingWin32API(): Empty common name provided.");
        return false;
    }
    if (container.empty()) {
        MFW_LOG(4, "OpenSslCertStore::GenerateCSRUsingWin32API(): Empty container named provided.");
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "GenerateCSRUsingWin32API");
    if (!db) {
        return false;
    }
    const auto row = db->key(container);
    const PkeyPtr key = row ? keyFromDer(row->der) : nullptr;
    if (!key) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateCSRUsingWin32API(): Unable to open the key in "
                "container %s.",
                container.c_str());
        return false;
    }
    MFW_LOG(1, "OpenSslCertStore::GenerateCSRUsingWin32API(): Using common name = %s",
            commonName.c_str());
    ReqPtr req(X509_REQ_new());
    NamePtr subject(X509_NAME_new());
    bool ok = req && subject && X509_REQ_set_version(req.get(), X509_REQ_VERSION_1) == 1 &&
              addSubjectEntry(subject.get(), NID_commonName, commonName);
    const std::pair<int, const std::string*> optional[] = {{NID_organizationalUnitName, &ou},
                                                           {NID_organizationName, &o},
                                                           {NID_stateOrProvinceName, &st},
                                                           {NID_countryName, &c}};
    for (const auto& [nid, value] : optional) {
        if (ok && !value->empty()) {
            ok = addSubjectEntry(subject.get(), nid, *value);
        }
    }
    ok = ok && X509_REQ_set_subject_name(req.get(), subject.get()) == 1 &&
         X509_REQ_set_pubkey(req.get(), key.get()) == 1 &&
         X509_REQ_sign(req.get(), key.get(), EVP_sha256()) > 0;
    unsigned char* data = nullptr;
    const int n = ok ? i2d_X509_REQ(req.get(), &data) : -1;
    if (n <= 0) {
        MFW_LOG(4,
                "OpenSslCertStore::GenerateCSRUsingWin32API(): Unable to sign the request, "
                "error:0x%08lx.",
                takeOpenSslError());
        return false;
    }
    csrDer.assign(data, data + n);
    OPENSSL_free(data);
    return true;
}

bool OpenSslCertStore::ImportCertificateToStore(const std::string& certPem,
                                                const std::string& storeName,
                                                const std::string& friendlyName,
                                                const std::vector<std::uint8_t>& keyBlob,
                                                const std::string& container,
                                                const CertStorePtr& openStore) {
    if (storeName.empty() && !openStore) {
        MFW_LOG(4,
                "OpenSslCertStore::ImportCertificateToStore(): Empty certificate store name has "
                "been provided.");
        return false;
    }
    if (certPem.empty()) {
        MFW_LOG(4,
                "OpenSslCertStore::ImportCertificateToStore(): Empty certificate has been "
                "provided.");
        return false;
    }
    CertStorePtr store = openStore ? openStore : OpenCertificateStore(storeName);
    if (!store) {
        MFW_LOG(4,
                "OpenSslCertStore::ImportCertificateToStore(): Couldn't open cert store, last "
                "error=%d",
                -1);
        return false;
    }
    return ImportCertificate(certPem, store, friendlyName, keyBlob, container);
}

bool OpenSslCertStore::ImportCertificate(const std::string& certPem, const CertStorePtr& store,
                                         const std::string& friendlyName,
                                         const std::vector<std::uint8_t>& keyBlob,
                                         const std::string& container) {
    if (!store) {
        MFW_LOG(4, "OpenSslCertStore::ImportCertificate(): No certificate store provided.");
        return false;
    }
    if (!friendlyName.empty()) {
        MFW_LOG(0, "OpenSslCertStore::ImportCertificate(): friendlyName is present so will be set");
    }
    PreparedImport import;
    if (!prepareImport(Import{certPem, friendlyName, keyBlob, container}, import,
                       "ImportCertificate")) {
        return false;
    }
    if (auto* memory = dynamic_cast<MemoryStoreHandle*>(store.get())) {
        // The key still lives in the machine's key store.
        if (!import.container.empty()) {
            auto db = openCertDatabase(options_.databaseFile, "ImportCertificate");
            if (!db || !db->putKey(import.container, import.keyDer, true)) {
                MFW_LOG(4,
                        "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): "
                        "NCryptImportKey failed, returned=%d",
                        db ? db->errorCode() : -1);
                return false;
            }
        }
        memory->put(import.cert.get(), import.friendlyName, import.container);
        return true;
    }
    const auto* named = dynamic_cast<const DbStoreHandle*>(store.get());
    auto db = named ? openCertDatabase(named->file(), "ImportCertificate") : nullptr;
    if (!db) {
        MFW_LOG(4,
                "OpenSslCertStore::ImportCertificate(): failed to add certificate to store, error "
                "= %d",
                -1);
        return false;
    }
    CertDatabase::Transaction tx(*db);
    std::int64_t id = 0;
    if (!tx.begun() || !writeImport(*db, named->name(), import, id) || !tx.commit()) {
        MFW_LOG(4,
                "OpenSslCertStore::ImportCertificate(): failed to add certificate to store, error "
                "= %d",
                db->errorCode());
        return false;
    }
    return true;
}

bool OpenSslCertStore::SetPrivateKeyForCertificateInStore(CertContext& cert,
                                                          const std::vector<std::uint8_t>& keyBlob,
                                                          const std::string& container) {
    SecretBytes der;
    if (!keyForCertificate(cert.cert.get(), keyBlob, container, der)) {
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "SetPrivateKeyForCertificateInStore");
    if (!db) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): "
                "NCryptOpenStorageProvider failed, returned=%d",
                -1);
        return false;
    }
    const auto* named = dynamic_cast<const DbStoreHandle*>(cert.store.get());
    // The key and its binding change together, or not at all.
    CertDatabase::Transaction tx(*db);
    if (!tx.begun() || !db->putKey(container, der, true)) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): NCryptImportKey failed, "
                "returned=%d",
                db->errorCode());
        return false;
    }
    if (named != nullptr && cert.id != 0 && !db->setKeyContainer(cert.id, container)) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): "
                "CertSetCertificateContextProperty failed. Error = %d.",
                db->errorCode());
        return false;
    }
    if (!tx.commit()) {
        MFW_LOG(4,
                "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): NCryptFinalizeKey failed, "
                "returned=%d",
                db->errorCode());
        return false;
    }
    if (auto* memory = dynamic_cast<MemoryStoreHandle*>(cert.store.get())) {
        memory->setKeyContainer(cert.id, container);
    }
    cert.keyContainer = container;
    return true;
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
        const std::string cn = trimTrailingWhitespace(commonNameOf(context.cert.get()));
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

bool OpenSslCertStore::ExportCertificateAndKeyFromStore(const std::string& storeName,
                                                        const std::string& friendlyName,
                                                        const std::string& commonName,
                                                        std::vector<std::uint8_t>& pkcs12,
                                                        std::vector<std::string>& caChainPem,
                                                        std::string& rootCaPem) {
    pkcs12.clear();
    caChainPem.clear();
    rootCaPem.clear();
    if (storeName.empty()) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Certificate store name not "
                "provided.");
        return false;
    }
    if (friendlyName.empty()) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Friendly Name not "
                "provided.");
        return false;
    }
    const CertStorePtr store = OpenCertificateStore(storeName);
    const auto context = store ? FindCertificate(store, friendlyName, commonName) : std::nullopt;
    if (!context) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Unable to find the "
                "certificate with friendly name=%s.",
                friendlyName.c_str());
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "ExportCertificateAndKeyFromStore");
    const auto keyRow =
        db && !context->keyContainer.empty() ? db->key(context->keyContainer) : std::nullopt;
    if (!keyRow) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): The certificate with "
                "friendly name=%s has no private key.",
                friendlyName.c_str());
        return false;
    }
    // The certificate alone would be no use to the caller, so a key that may
    // not leave the store fails the export.
    if (!keyRow->exportable) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): The private key of the "
                "certificate with friendly name=%s cannot be exported.",
                friendlyName.c_str());
        return false;
    }
    const PkeyPtr key = keyFromDer(keyRow->der);
    Pkcs12Ptr p12(key ? PKCS12_create("", friendlyName.c_str(), key.get(), context->cert.get(),
                                      nullptr, 0, 0, 0, 0, 0)
                      : nullptr);
    unsigned char* data = nullptr;
    const int n = p12 ? i2d_PKCS12(p12.get(), &data) : 0;
    if (n <= 0) {
        ERR_clear_error();
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): CRYPT_DATA_BLOB size is "
                "unexpectedly 0.");
        return false;
    }
    pkcs12.assign(data, data + n);
    OPENSSL_clear_free(data, static_cast<std::size_t>(n));

    if (!RetrieveCACertificateChain(*context, store, caChainPem)) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Failed to retrieve CA "
                "certificate chain.");
        pkcs12.clear();
        return false;
    }
    if (!RetrieveRootCACertificate(*context, store, rootCaPem)) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Fail to retrieve root CA "
                "certificate.");
        pkcs12.clear();
        caChainPem.clear();
        return false;
    }
    return true;
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

bool OpenSslCertStore::DeleteCertificate(const CertContext& cert) {
    if (auto* memory = dynamic_cast<MemoryStoreHandle*>(cert.store.get())) {
        if (!memory->remove(cert.id)) {
            MFW_LOG(4,
                    "OpenSslCertStore::DeleteCertificate(): CertDeleteCertificateFromStore failed "
                    "%s.",
                    "not in the store");
            return false;
        }
        return true;
    }
    const auto* named = dynamic_cast<const DbStoreHandle*>(cert.store.get());
    if (named == nullptr || cert.id == 0) {
        MFW_LOG(4,
                "OpenSslCertStore::DeleteCertificate(): CertDeleteCertificateFromStore failed %s.",
                "not a stored certificate");
        return false;
    }
    auto db = openCertDatabase(named->file(), "DeleteCertificate");
    if (!db) {
        return false;
    }
    CertDatabase::Transaction tx(*db);
    if (!tx.begun() || !db->deleteCertificate(cert.id) ||
        !db->deleteKeyIfUnbound(cert.keyContainer) || !tx.commit()) {
        const std::string reason = db->certificateExists(cert.id) || !tx.begun()
                                       ? db->errorText()
                                       : std::string("not in the store");
        MFW_LOG(4,
                "OpenSslCertStore::DeleteCertificate(): CertDeleteCertificateFromStore failed %s.",
                reason.c_str());
        return false;
    }
    return true;
}

bool OpenSslCertStore::DeleteCertificates(const std::string& storeName,
                                          const std::string& friendlyName) {
    if (storeName.empty() || friendlyName.empty()) {
        MFW_LOG(4, "OpenSslCertStore::DeleteCertificates(): Store name and friendly name needed.");
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "DeleteCertificates");
    if (!db) {
        return false;
    }
    CertDatabase::Transaction tx(*db);
    const auto rows = tx.begun() ? db->certificatesNamed(storeName, friendlyName) : std::nullopt;
    bool ok = rows.has_value();
    for (std::size_t i = 0; ok && i < rows->size(); ++i) {
        ok = db->deleteCertificate((*rows)[i].id);
    }
    for (std::size_t i = 0; ok && i < rows->size(); ++i) {
        ok = db->deleteKeyIfUnbound((*rows)[i].keyContainer);
    }
    ok = ok && tx.commit();
    const std::size_t count = rows ? rows->size() : 1;
    for (std::size_t i = 0; i < count; ++i) {
        if (ok) {
            MFW_LOG(1,
                    "OpenSslCertStore::DeleteCertificates(): Deleted certificate with friendly "
                    "name %s",
                    friendlyName.c_str());
        } else {
            MFW_LOG(4,
                    "OpenSslCertStore::DeleteCertificates(): Unable to delete the certificate "
                    "with friendly name %s",
                    friendlyName.c_str());
        }
    }
    return ok;
}

bool OpenSslCertStore::ReplaceCertificates(const std::string& storeName,
                                           const std::string& replaceFriendlyName,
                                           const std::vector<Import>& imports) {
    if (storeName.empty()) {
        MFW_LOG(4, "OpenSslCertStore::ReplaceCertificates(): Empty certificate store name.");
        return false;
    }
    std::vector<PreparedImport> prepared(imports.size());
    for (std::size_t i = 0; i < imports.size(); ++i) {
        if (!prepareImport(imports[i], prepared[i], "ReplaceCertificates")) {
            return false;
        }
    }
    auto db = openCertDatabase(options_.databaseFile, "ReplaceCertificates");
    if (!db) {
        return false;
    }
    CertDatabase::Transaction tx(*db);
    std::optional<std::vector<CertDatabase::CertRow>> removed;
    if (tx.begun()) {
        removed = replaceFriendlyName.empty()
                      ? std::vector<CertDatabase::CertRow>{}
                      : db->certificatesNamed(storeName, replaceFriendlyName);
    }
    bool ok = removed.has_value();
    for (std::size_t i = 0; ok && i < removed->size(); ++i) {
        ok = db->deleteCertificate((*removed)[i].id);
    }
    if (ok) {
        transactionPoint("ReplaceCertificates:removed");
    }
    for (std::size_t i = 0; ok && i < prepared.size(); ++i) {
        std::int64_t id = 0;
        ok = writeImport(*db, storeName, prepared[i], id);
    }
    // Keys of the replaced certificates go unless an import bound them again.
    for (std::size_t i = 0; ok && i < removed->size(); ++i) {
        ok = db->deleteKeyIfUnbound((*removed)[i].keyContainer);
    }
    if (!ok || !tx.commit()) {
        MFW_LOG(4,
                "OpenSslCertStore::ReplaceCertificates(): Unable to replace the certificates "
                "named %s in store %s, error = %d",
                replaceFriendlyName.c_str(), storeName.c_str(), db->errorCode());
        return false;
    }
    return true;
}

CertUtilityInterface::PromoteResult OpenSslCertStore::PromoteCertificate(
    const std::string& storeName, const std::string& fromFriendlyName,
    const std::string& toFriendlyName, int& errorCode) {
    errorCode = 0;
    if (storeName.empty() || fromFriendlyName.empty() || toFriendlyName.empty() ||
        fromFriendlyName == toFriendlyName) {
        MFW_LOG(4, "OpenSslCertStore::PromoteCertificate(): Invalid parameters provided");
        return PromoteResult::RenameFailed;
    }
    auto db = openCertDatabase(options_.databaseFile, "PromoteCertificate");
    if (!db) {
        errorCode = -1;
        return PromoteResult::RenameFailed;
    }
    CertDatabase::Transaction tx(*db);
    const auto from =
        tx.begun() ? db->certificatesNamed(storeName, fromFriendlyName) : std::nullopt;
    const auto to = from ? db->certificatesNamed(storeName, toFriendlyName) : std::nullopt;
    if (!to) {
        errorCode = db->errorCode();
        return PromoteResult::RenameFailed;
    }
    if (from->empty()) {
        return PromoteResult::NotFound;
    }
    for (const auto& row : *from) {
        if (!db->setFriendlyName(row.id, toFriendlyName)) {
            errorCode = db->errorCode();
            return PromoteResult::RenameFailed;
        }
    }
    transactionPoint("PromoteCertificate:renamed");
    for (const auto& row : *to) {
        if (!db->deleteCertificate(row.id)) {
            errorCode = db->errorCode();
            return PromoteResult::RemovalFailed;
        }
    }
    for (const auto& row : *to) {
        if (!db->deleteKeyIfUnbound(row.keyContainer)) {
            errorCode = db->errorCode();
            return PromoteResult::KeyRemovalFailed;
        }
    }
    transactionPoint("PromoteCertificate:removed");
    if (!tx.commit()) {
        errorCode = db->errorCode();
        return PromoteResult::RenameFailed;
    }
    return PromoteResult::Promoted;
}

bool OpenSslCertStore::AddCrl(const std::string& storeName, const std::string& crlPem) {
    const CrlPtr crl = crlFromPem(crlPem);
    const auto der = crl ? crlToDer(crl.get()) : std::vector<std::uint8_t>();
    if (storeName.empty() || der.empty()) {
        MFW_LOG(4, "OpenSslCertStore::AddCrl(): Invalid CRL or store name.");
        return false;
    }
    auto db = openCertDatabase(options_.databaseFile, "AddCrl");
    if (!db || !db->putCrl(storeName, der)) {
        MFW_LOG(4, "OpenSslCertStore::AddCrl(): Unable to store the CRL, error = %d",
                db ? db->errorCode() : -1);
        return false;
    }
    return true;
}

bool OpenSslCertStore::KeyExists(const std::string& container) {
    auto db = container.empty() ? nullptr : openCertDatabase(options_.databaseFile, "KeyExists");
    return db && db->key(container).has_value();
}

bool OpenSslCertStore::SetKeyExportPolicy(const std::string& container, bool exportable) {
    auto db = openCertDatabase(options_.databaseFile, "SetKeyExportPolicy");
    bool found = false;
    if (!db || !db->setKeyExportable(container, exportable, found) || !found) {
        MFW_LOG(4, "OpenSslCertStore::SetKeyExportPolicy(): No key in container %s.",
                container.c_str());
        return false;
    }
    return true;
}

std::shared_ptr<CertUtilityInterface> makePlatformCertStore() {
    return std::make_shared<OpenSslCertStore>();
}

}  // namespace ndpx::certs
