// Changes to OpenSslCertStore's stores: imports, deletions, the replace and
// promote transactions, and CRLs.

#include "certs/linux/OpenSslCertStore.h"

#include "StoreInternals.h"

#include <mfw/moduleLog.h>

#include <atomic>

namespace ndpx::certs {

namespace {

std::atomic<OpenSslCertStore::TransactionHook> g_transactionHook{nullptr};

void transactionPoint(const char* point) {
    if (const auto hook = g_transactionHook.load()) {
        hook(point);
    }
}

// A parsed import: the certificate and, when it has one, its key.
struct PreparedImport {
    CertificatePtr cert;
    std::vector<std::uint8_t> der;
    SecretBytes keyDer;
    std::string friendlyName;
    std::string container;
};

bool prepareImport(const CertUtilityInterface::Import& in, PreparedImport& out, const char* who) {
    out.cert = certificateOf(x509FromPem(in.certPem));
    out.der = out.cert ? out.cert->der() : std::vector<std::uint8_t>();
    if (!out.cert || out.der.empty()) {
        MFW_LOG(4, "OpenSslCertStore::%s(): Unable to decode the certificate.", who);
        return false;
    }
    out.friendlyName = in.friendlyName;
    if (!in.keyBlob.empty() || !in.container.empty()) {
        if (!keyForCertificate(x509Of(out.cert), in.keyBlob, in.container, out.keyDer)) {
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

void OpenSslCertStore::setTransactionHookForTesting(TransactionHook hook) {
    g_transactionHook.store(hook);
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
        memory->put(import.cert, import.friendlyName, import.container);
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

}  // namespace ndpx::certs
