// OpenSslCertStore's keys: generation, certificate requests, binding a key
// to a certificate, PKCS#12 export and the export policy.

#include "certs/linux/OpenSslCertStore.h"

#include "StoreInternals.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace ndpx::certs {

namespace {

int errorNumber(unsigned long code) {
    return static_cast<int>(code & 0x7fffffff);
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

}  // namespace

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

bool OpenSslCertStore::SetPrivateKeyForCertificateInStore(CertContext& cert,
                                                          const std::vector<std::uint8_t>& keyBlob,
                                                          const std::string& container) {
    SecretBytes der;
    if (!keyForCertificate(x509Of(cert), keyBlob, container, der)) {
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
    // The password is empty, so key stretching would protect nothing: one
    // iteration each for the encryption and the MAC spares thousands of
    // hash rounds here and again when the blob is read.
    constexpr int kIterations = 1;
    Pkcs12Ptr p12(key ? PKCS12_create("", friendlyName.c_str(), key.get(), x509Of(*context),
                                      nullptr, 0, 0, kIterations, kIterations, 0)
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

    // One chain gives both the CA certificates and the root.
    const CertChainPtr chain = BuildCertificateChain(&*context, store);
    if (!chain || !caChainOf(*chain, caChainPem)) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Failed to retrieve CA "
                "certificate chain.");
        pkcs12.clear();
        return false;
    }
    if (!rootOf(*chain, rootCaPem)) {
        MFW_LOG(4,
                "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Fail to retrieve root CA "
                "certificate.");
        pkcs12.clear();
        caChainPem.clear();
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

}  // namespace ndpx::certs
