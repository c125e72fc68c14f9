#pragma once
// The Linux certificate and key store: OpenSSL 3 for keys, requests, PKCS#12
// and chains; one SQLite database (certstore.sqlite under the root prefix)
// for the named stores, the keys by container name and the CRLs; the
// system's CA bundle as the machine's trusted roots, together with the
// database's "Root" store.

#include "certs/CertUtilityInterface.h"
#include "certs/OpenSslUtil.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::certs {

class OpenSslCertStore final : public CertUtilityInterface {
public:
    static constexpr const char* kDefaultSystemRootsFile = "/etc/ssl/certs/ca-certificates.crt";

    // Fetches the CRL published at `url` (DER or PEM); false with `error`
    // set when it cannot.
    using CrlFetcher =
        std::function<bool(const std::string& url, std::string& crl, std::string& error)>;

    // The database file is fixed when the object is made: the machine's
    // certstore.sqlite under the root prefix of that moment, unless given.
    struct Options {
        std::string databaseFile;
        std::string systemRootsFile = kDefaultSystemRootsFile;
        // When set, a revocation check that finds no CRL for a certificate
        // fetches one from the certificate's distribution points and keeps
        // it in the store for later checks.
        CrlFetcher crlFetcher;
    };

    OpenSslCertStore();
    explicit OpenSslCertStore(Options options);
    ~OpenSslCertStore() override;

    bool ImportCertificateToStore(const std::string& certPem, const std::string& storeName,
                                  const std::string& friendlyName,
                                  const std::vector<std::uint8_t>& keyBlob,
                                  const std::string& container,
                                  const CertStorePtr& openStore) override;
    bool SetPrivateKeyForCertificateInStore(CertContext& cert,
                                            const std::vector<std::uint8_t>& keyBlob,
                                            const std::string& container) override;
    std::optional<CertContext> FindCertificate(const CertStorePtr& store,
                                               const std::string& friendlyName,
                                               const std::string& commonName) override;
    bool GenerateKeyUsingWin32API(const std::string& container, std::vector<std::uint8_t>& keyBlob,
                                  std::vector<std::uint8_t>& pkcs1Der) override;
    CertStorePtr OpenCertificateStore(const std::string& storeName) override;
    bool GenerateCSRUsingWin32API(const std::string& container, const std::string& commonName,
                                  const std::string& ou, const std::string& o,
                                  const std::string& st, const std::string& c,
                                  std::vector<std::uint8_t>& csrDer) override;
    bool ExportCertificateAndKeyFromStore(const std::string& storeName,
                                          const std::string& friendlyName,
                                          const std::string& commonName,
                                          std::vector<std::uint8_t>& pkcs12,
                                          std::vector<std::string>& caChainPem,
                                          std::string& rootCaPem) override;
    bool RetrieveCACertificateChainFromStore(const std::string& storeName,
                                             const std::string& friendlyName,
                                             std::vector<std::string>& caChainPem) override;
    bool DeleteCertificate(const CertContext& cert) override;
    bool DeleteCertificates(const std::string& storeName, const std::string& friendlyName) override;
    std::vector<std::string> RetrieveSystemCertificates() override;
    bool ImportCertificate(const std::string& certPem, const CertStorePtr& store,
                           const std::string& friendlyName,
                           const std::vector<std::uint8_t>& keyBlob,
                           const std::string& container) override;
    CertChainPtr BuildCertificateChain(const CertContext* cert,
                                       const CertStorePtr& additionalStore) override;
    bool RetrieveCACertificateChain(const CertContext& cert, const CertStorePtr& store,
                                    std::vector<std::string>& caChainPem) override;
    bool RetrieveRootCACertificate(const CertContext& cert, const CertStorePtr& store,
                                   std::string& rootCaPem) override;
    bool ConvertChainCtxToPEM(const CertChain* chain, std::vector<std::string>& pems) override;
    bool VerifyCertChain(const CertChain* chain, const std::string& serverName,
                         bool ignoreUntrustedRoot, bool ignoreName,
                         std::uint32_t& policyStatus) override;
    bool VerifyCertRevocation(const CertContext* cert, const std::vector<std::string>& crlPems,
                              std::uint32_t& errorStatus, std::uint32_t& infoStatus) override;
    CertStorePtr OpenMemoryStore() override;
    std::vector<CertContext> EnumerateCertificates(const CertStorePtr& store) override;
    bool ReplaceCertificates(const std::string& storeName, const std::string& replaceFriendlyName,
                             const std::vector<Import>& imports) override;
    PromoteResult PromoteCertificate(const std::string& storeName,
                                     const std::string& fromFriendlyName,
                                     const std::string& toFriendlyName, int& errorCode) override;
    bool AddCrl(const std::string& storeName, const std::string& crlPem) override;
    bool KeyExists(const std::string& container) override;

    // Allows or forbids the export of the key in `container` (keys are
    // generated exportable).
    bool SetKeyExportPolicy(const std::string& container, bool exportable);

    const std::string& databaseFile() const { return options_.databaseFile; }

    // For crash tests: called with a point name inside write transactions,
    // before they commit ("ReplaceCertificates:removed",
    // "PromoteCertificate:renamed", "PromoteCertificate:removed").
    using TransactionHook = void (*)(const char* point);
    static void setTransactionHookForTesting(TransactionHook hook);

private:
    class Impl;
    // Fetches a CRL for every certificate of `chain` whose revocation status
    // was unknown; true when one was added to `crls`.
    bool fetchMissingCrls(const CertChain& chain, std::vector<CrlPtr>& crls);
    Options options_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ndpx::certs
