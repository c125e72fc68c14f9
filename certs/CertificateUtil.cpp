#include "certs/CertificateUtil.h"

#include "certs/OpenSslUtil.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>

namespace ndpx::certs {

namespace {

// Wipes a buffer that held key material when the scope ends.
class WipeOnExit {
public:
    explicit WipeOnExit(std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}
    ~WipeOnExit() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    std::vector<std::uint8_t>& bytes_;
};

// Key PEM goes through secure memory, which is wiped when freed.
BioPtr newSecretBio() {
    return BioPtr(BIO_new(BIO_s_secmem()));
}

bool readBio(BIO* bio, std::string& out) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    if (n <= 0 || data == nullptr) {
        return false;
    }
    out.assign(data, static_cast<std::size_t>(n));
    return true;
}

}  // namespace

std::string ClientCredentials::caChainText() const {
    std::string text;
    for (const auto& pem : caChainPem) {
        text += pem;
    }
    return text;
}

CertificateUtil::CertificateUtil() : store_(makePlatformCertStore()) {}

CertificateUtil::CertificateUtil(std::shared_ptr<CertUtilityInterface> store)
    : store_(std::move(store)) {}

const char* CertificateUtil::FriendlyName(bool pending) {
    return pending ? kPendingClientCertFriendlyName : kClientCertFriendlyName;
}

bool CertificateUtil::GenerateKeyAndCSR(const std::string& commonName, const std::string& container,
                                        std::vector<std::uint8_t>& keyBlob,
                                        std::string& privateKeyPem, std::string& csrPem) {
    keyBlob.clear();
    privateKeyPem.clear();
    csrPem.clear();
    std::vector<std::uint8_t> pkcs1;
    const WipeOnExit wipe(pkcs1);
    if (!store_->GenerateKeyUsingWin32API(container, keyBlob, pkcs1)) {
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): Failed to generate key using OpenSSL.");
        return false;
    }
    const PkeyPtr key = keyFromDer(pkcs1);
    if (!key) {
        MFW_LOG(4,
                "CertificateUtil::GenerateKeyAndCSR(): Unable to convert private key to "
                "EVP_PKEY.");
        keyBlob.clear();
        return false;
    }
    std::vector<std::uint8_t> csrDer;
    if (!store_->GenerateCSRUsingWin32API(container, commonName, {}, {}, {}, {}, csrDer)) {
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): Failed to generate csr.");
        keyBlob.clear();
        return false;
    }
    const unsigned char* p = csrDer.data();
    const ReqPtr req(d2i_X509_REQ(nullptr, &p, static_cast<long>(csrDer.size())));
    if (!req) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): Error in d2i_X509_REQ");
        keyBlob.clear();
        return false;
    }
    BioPtr csrBio(BIO_new(BIO_s_mem()));
    if (!csrBio || PEM_write_bio_X509_REQ(csrBio.get(), req.get()) != 1) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): PEM_write_bio_X509_REQ failed.");
        keyBlob.clear();
        return false;
    }
    if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): Error getting RSA key");
        keyBlob.clear();
        return false;
    }
    // The traditional form of an RSA key is PKCS#1 ("RSA PRIVATE KEY").
    BioPtr keyBio = newSecretBio();
    if (!keyBio || PEM_write_bio_PrivateKey_traditional(keyBio.get(), key.get(), nullptr, nullptr,
                                                        0, nullptr, nullptr) != 1) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): Error writing private key to bio.");
        keyBlob.clear();
        return false;
    }
    if (!readBio(csrBio.get(), csrPem) || !readBio(keyBio.get(), privateKeyPem)) {
        MFW_LOG(4, "CertificateUtil::GenerateKeyAndCSR(): BIO_get_mem_data failed");
        keyBlob.clear();
        csrPem.clear();
        privateKeyPem.clear();
        return false;
    }
    return true;
}

bool CertificateUtil::StoreCertificates(bool pending, const std::string& clientCertPem,
                                        const std::string& caCertPem,
                                        const std::vector<std::uint8_t>& keyBlob,
                                        const std::string& container) {
    const char* friendlyName = FriendlyName(pending);
    MFW_LOG(1, "CertificateUtil::StoreCertificates(): Friendly name for client cert = %s",
            friendlyName);
    if (!x509FromPem(clientCertPem) || keyBlob.empty() || container.empty()) {
        MFW_LOG(4, "CertificateUtil::StoreCertificates(): Failed to save client certificate.");
        return false;
    }
    if (!x509FromPem(caCertPem)) {
        MFW_LOG(4, "CertificateUtil::StoreCertificates(): Failed to save CA certificate.");
        return false;
    }
    // Removing the old certificate and adding the new one and its CA is one
    // step for the store: a crash in between leaves the old certificate.
    const std::vector<CertUtilityInterface::Import> imports = {
        {clientCertPem, friendlyName, keyBlob, container},
        {caCertPem, {}, {}, {}},
    };
    if (!store_->ReplaceCertificates(kClientCertStoreName, friendlyName, imports)) {
        MFW_LOG(4, "CertificateUtil::StoreCertificates(): Failed to save client certificate.");
        return false;
    }
    return true;
}

bool CertificateUtil::RetrieveCertificates(bool pending, const std::string& commonName,
                                           ClientCredentials& out) {
    out = ClientCredentials{};
    std::vector<std::uint8_t> pkcs12;
    const WipeOnExit wipe(pkcs12);
    if (!store_->ExportCertificateAndKeyFromStore(kClientCertStoreName, FriendlyName(pending),
                                                  commonName, pkcs12, out.caChainPem,
                                                  out.rootCaPem)) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveCertificates(): Couldn't retrieve client certificate, "
                "private key blob, root CA certificate, and CA certificate chain");
        return false;
    }
    if (!DecodeKey(pkcs12, out.clientCertPem, out.privateKeyPem, out.publicKeyPem)) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveCertificates(): Failed to decode the client certificate "
                "and key.");
        out = ClientCredentials{};
        return false;
    }
    return true;
}

bool CertificateUtil::DecodeKey(const std::vector<std::uint8_t>& pkcs12, std::string& certPem,
                                std::string& privateKeyPem, std::string& publicKeyPem) {
    certPem.clear();
    privateKeyPem.clear();
    publicKeyPem.clear();
    const unsigned char* p = pkcs12.data();
    const Pkcs12Ptr p12(pkcs12.empty() ? nullptr
                                       : d2i_PKCS12(nullptr, &p, static_cast<long>(pkcs12.size())));
    if (!p12) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::DecodeKey(): Failed to convert flat data to PKCS12.");
        return false;
    }
    EVP_PKEY* rawKey = nullptr;
    X509* rawCert = nullptr;
    if (PKCS12_parse(p12.get(), "", &rawKey, &rawCert, nullptr) != 1 || rawKey == nullptr ||
        rawCert == nullptr) {
        const auto error = static_cast<unsigned>(takeOpenSslError());
        EVP_PKEY_free(rawKey);
        X509_free(rawCert);
        MFW_LOG(4, "CertificateUtil::DecodeKey(): Failed to parse pkcs to x509. err=%ul", error);
        return false;
    }
    const PkeyPtr key(rawKey);
    const X509Ptr cert(rawCert);
    BioPtr certBio(BIO_new(BIO_s_mem()));
    if (!certBio || PEM_write_bio_X509(certBio.get(), cert.get()) != 1 ||
        !readBio(certBio.get(), certPem)) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::DecodeKey(): PEM_write_bio_X509 failed.");
        return false;
    }
    BioPtr keyBio = newSecretBio();
    if (!keyBio ||
        PEM_write_bio_PrivateKey(keyBio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
            1 ||
        !readBio(keyBio.get(), privateKeyPem)) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::DecodeKey(): PEM_write_bio_PrivateKey failed.");
        certPem.clear();
        return false;
    }
    BioPtr pubBio(BIO_new(BIO_s_mem()));
    if (!pubBio || PEM_write_bio_PUBKEY(pubBio.get(), key.get()) != 1 ||
        !readBio(pubBio.get(), publicKeyPem)) {
        ERR_clear_error();
        MFW_LOG(4, "CertificateUtil::DecodeKey(): PEM_write_bio_PUBKEY failed.");
        certPem.clear();
        privateKeyPem.clear();
        return false;
    }
    return true;
}

bool CertificateUtil::RetrieveClientCertificateContext(bool pending, CertChainPtr* chain) {
    if (chain == nullptr) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveClientCertificateContext(): Invalid cert context "
                "argument");
        return false;
    }
    chain->reset();
    const CertStorePtr store = store_->OpenCertificateStore(kClientCertStoreName);
    if (!store) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveClientCertificateContext(): Unable to open cert store");
        return false;
    }
    const char* friendlyName = FriendlyName(pending);
    const auto context = store_->FindCertificate(store, friendlyName, {});
    if (!context) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveClientCertificateContext(): Unable to find the "
                "certificate with friendly name=%s.",
                friendlyName);
        return false;
    }
    *chain = store_->BuildCertificateChain(&*context, store);
    if (!*chain) {
        MFW_LOG(4,
                "CertificateUtil::RetrieveClientCertificateContext(): Unable to build cert chain.");
        return false;
    }
    return true;
}

bool CertificateUtil::WillCertChainExpire(const CertChain* chain,
                                          std::chrono::system_clock::time_point when) {
    if (chain == nullptr) {
        MFW_LOG(4, "CertificateUtil::WillCertChainExpire(): Invalid cert chain.");
        return false;
    }
    if (chain->simpleChains.empty()) {
        MFW_LOG(4,
                "CertificateUtil::WillCertChainExpire(): No chains detected in the certificate.");
        return false;
    }
    if (chain->simpleChains.size() > 1) {
        MFW_LOG(1,
                "CertificateUtil::WillCertChainExpire(): Will only check the first simple chain "
                "for expiry.");
    }
    std::time_t at = std::chrono::system_clock::to_time_t(when);
    for (const auto& element : chain->simpleChains.front().elements) {
        X509* cert = x509Of(element.context);
        // X509_cmp_time answers 0 for a time it cannot read: not valid either.
        const bool valid = cert != nullptr && X509_cmp_time(X509_get0_notBefore(cert), &at) < 0 &&
                           X509_cmp_time(X509_get0_notAfter(cert), &at) > 0;
        if (!valid) {
            ERR_clear_error();
            MFW_LOG(3,
                    "CertificateUtil::WillCertChainExpire(): Cert with SN %s has expired or is "
                    "about to expire.",
                    serialHexOf(cert).c_str());
            return true;
        }
    }
    return false;
}

bool CertificateUtil::ActivatePendingCertificate() {
    int error = 0;
    switch (store_->PromoteCertificate(kClientCertStoreName, kPendingClientCertFriendlyName,
                                       kClientCertFriendlyName, error)) {
        case CertUtilityInterface::PromoteResult::Promoted:
            MFW_LOG(1,
                    "CertificateUtil::ActivatePendingCertificate(): Successfully activated "
                    "pending client certificate");
            MFW_LOG(1,
                    "CertificateUtil::ActivatePendingCertificate(): Finished activating pending "
                    "client certificate");
            return true;
        case CertUtilityInterface::PromoteResult::NotFound:
            MFW_LOG(4,
                    "CertificateUtil::ActivatePendingCertificate(): Unable to find the "
                    "certificate with friendly name=%s.",
                    kPendingClientCertFriendlyName);
            return false;
        case CertUtilityInterface::PromoteResult::RenameFailed:
            MFW_LOG(4,
                    "CertificateUtil::ActivatePendingCertificate(): "
                    "CertSetCertificateContextProperty failed while setting friendly name, "
                    "error=%d",
                    error);
            return false;
        case CertUtilityInterface::PromoteResult::KeyRemovalFailed:
            MFW_LOG(4,
                    "CertificateUtil::ActivatePendingCertificate(): Failed to acquire private key "
                    "handle");
            return false;
        case CertUtilityInterface::PromoteResult::RemovalFailed:
            MFW_LOG(4,
                    "CertificateUtil::ActivatePendingCertificate(): CertDeleteCertificateFromStore "
                    "failed with error=%d.",
                    error);
            return false;
    }
    return false;
}

std::string CertificateUtil::GetCertificateCN(const CertContext* context) {
    std::string cn = context != nullptr ? commonNameOf(x509Of(*context)) : std::string();
    if (cn.empty()) {
        MFW_LOG(4, "CertificateUtil::GetCertificateCN(): Invalid CN.");
    }
    return cn;
}

bool CertificateUtil::RemoveClientCertificate(bool pending) {
    return store_->DeleteCertificates(kClientCertStoreName, FriendlyName(pending));
}

bool CertificateUtil::RetrieveSystemCACertificates(std::string& pemText) {
    pemText.clear();
    for (const auto& pem : store_->RetrieveSystemCertificates()) {
        pemText += pem;
    }
    if (pemText.empty()) {
        MFW_LOG(3,
                "CertificateUtil::RetrieveSystemCACertificates(): No trusted root certificates.");
        return false;
    }
    return true;
}

}  // namespace ndpx::certs
