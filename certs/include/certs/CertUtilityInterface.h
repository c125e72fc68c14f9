#pragma once
// The certificate and key store seam: RSA keys kept by container name,
// certificates in named stores with friendly names and key bindings, CSRs,
// PKCS#12 export, the machine's trusted roots, chain building and the SSL and
// revocation checks. CertificateUtil, the HTTPS client and the chain probe
// reach the store only through this interface; the Linux backend is
// certs/linux/OpenSslCertStore, tests may substitute their own.
//
// Every operation is self-contained: it opens what it needs and releases it
// before returning. Failures answer false, null or an empty list and log a
// line; nothing throws.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ndpx::certs {

// A certificate in the backend's own form. Immutable, so contexts share it.
// Code that needs the backend's form includes the backend's header
// (certs/OpenSslCertificate.h for OpenSSL).
class CertificateHandle {
public:
    virtual ~CertificateHandle() = default;
    // The DER encoding.
    virtual std::vector<std::uint8_t> der() const = 0;
};
using CertificatePtr = std::shared_ptr<const CertificateHandle>;

// An open certificate store: a named store of the machine ("My", "Root", ...)
// or an in-memory store that lives as long as its handle.
class CertStoreHandle {
public:
    virtual ~CertStoreHandle() = default;
    virtual const std::string& name() const = 0;  // empty for an in-memory store
    virtual bool inMemory() const = 0;
};
using CertStorePtr = std::shared_ptr<CertStoreHandle>;

// A certificate as a store holds it, with the properties the store keeps.
// Copies share the certificate.
struct CertContext {
    CertificatePtr cert;
    CertStorePtr store;        // the store it came from; null when free-standing
    std::string friendlyName;  // empty when not set
    std::string keyContainer;  // the bound private key; empty when none
    std::int64_t id = 0;       // the store's identifier for it; 0 when not in a store

    CertContext() = default;
    explicit CertContext(CertificatePtr c) : cert(std::move(c)) {}

    explicit operator bool() const { return cert != nullptr; }
};

// Trust status bits of a chain, its simple chains and their elements.
namespace trust {
inline constexpr std::uint32_t kNotTimeValid = 0x00000001;
inline constexpr std::uint32_t kRevoked = 0x00000004;
inline constexpr std::uint32_t kNotSignatureValid = 0x00000008;
inline constexpr std::uint32_t kNotValidForUsage = 0x00000010;
inline constexpr std::uint32_t kUntrustedRoot = 0x00000020;
inline constexpr std::uint32_t kRevocationStatusUnknown = 0x00000040;
inline constexpr std::uint32_t kInvalidExtension = 0x00000100;
inline constexpr std::uint32_t kInvalidBasicConstraints = 0x00000400;
inline constexpr std::uint32_t kPartialChain = 0x00010000;
inline constexpr std::uint32_t kOfflineRevocation = 0x01000000;
// Information bits.
inline constexpr std::uint32_t kIsSelfSigned = 0x00000008;
}  // namespace trust

// Outcome of the SSL server policy check (VerifyCertChain).
namespace policy {
inline constexpr std::uint32_t kOk = 0;
inline constexpr std::uint32_t kExpired = 0x800B0101;
inline constexpr std::uint32_t kUntrustedRoot = 0x800B0109;
inline constexpr std::uint32_t kTrustFailure = 0x800B010B;
inline constexpr std::uint32_t kCnNoMatch = 0x800B010F;
inline constexpr std::uint32_t kWrongUsage = 0x800B0110;
inline constexpr std::uint32_t kRevoked = 0x80092010;
inline constexpr std::uint32_t kBadSignature = 0x80096004;
inline constexpr std::uint32_t kBadBasicConstraints = 0x80096019;
}  // namespace policy

struct ChainElement {
    CertContext context;
    std::uint32_t errorStatus = 0;
    std::uint32_t infoStatus = 0;
};

// One path from the end certificate towards a root, end certificate first.
struct SimpleChain {
    std::vector<ChainElement> elements;
    std::uint32_t errorStatus = 0;
    std::uint32_t infoStatus = 0;
};

// A built chain. The backend builds one simple chain; callers look at the
// first one.
struct CertChain {
    std::vector<SimpleChain> simpleChains;
    std::uint32_t errorStatus = 0;
    std::uint32_t infoStatus = 0;

    // The certificate the chain was built for, or null.
    const CertContext* endCertificate() const;
};
using CertChainPtr = std::unique_ptr<CertChain>;

class CertUtilityInterface {
public:
    virtual ~CertUtilityInterface() = default;

    // Imports `certPem` into the store named `storeName` (or into `openStore`
    // when given), with `friendlyName` when not empty, and bound to the key in
    // `keyBlob` under `container` when both are given (a CA certificate is
    // imported without a key). The same certificate already in the store is
    // replaced. One transaction.
    virtual bool ImportCertificateToStore(const std::string& certPem, const std::string& storeName,
                                          const std::string& friendlyName,
                                          const std::vector<std::uint8_t>& keyBlob,
                                          const std::string& container,
                                          const CertStorePtr& openStore) = 0;

    // Imports the key blob (MS private-key blob) under `container`, replacing
    // a key of that name, and binds it to `cert`: in the store when `cert` is
    // stored, else only in the context. The key must match the certificate.
    virtual bool SetPrivateKeyForCertificateInStore(CertContext& cert,
                                                    const std::vector<std::uint8_t>& keyBlob,
                                                    const std::string& container) = 0;

    // The first certificate of `store` with exactly this friendly name (a
    // certificate without one goes by its subject common name) and, when
    // `commonName` is not empty, whose subject common name equals it without
    // regard to case or trailing white space.
    virtual std::optional<CertContext> FindCertificate(const CertStorePtr& store,
                                                       const std::string& friendlyName,
                                                       const std::string& commonName) = 0;

    // A new RSA-2048 key under `container` (replacing one of that name),
    // exportable. Out: the MS private-key blob and the PKCS#1 DER encoding.
    virtual bool GenerateKeyUsingWin32API(const std::string& container,
                                          std::vector<std::uint8_t>& keyBlob,
                                          std::vector<std::uint8_t>& pkcs1Der) = 0;

    // A named store; null when it cannot be opened.
    virtual CertStorePtr OpenCertificateStore(const std::string& storeName) = 0;

    // A DER certificate request for the key in `container`, signed with
    // SHA-256 with RSA. Subject: CN, OU, O, ST, C, the empty ones left out.
    virtual bool GenerateCSRUsingWin32API(const std::string& container,
                                          const std::string& commonName, const std::string& ou,
                                          const std::string& o, const std::string& st,
                                          const std::string& c,
                                          std::vector<std::uint8_t>& csrDer) = 0;

    // The certificate named `friendlyName` (and `commonName` when not empty)
    // with its private key as PKCS#12 (empty password), and its CA
    // certificates (issuer first) and root as PEM. Refuses a certificate
    // without a key or whose key is not exportable.
    virtual bool ExportCertificateAndKeyFromStore(const std::string& storeName,
                                                  const std::string& friendlyName,
                                                  const std::string& commonName,
                                                  std::vector<std::uint8_t>& pkcs12,
                                                  std::vector<std::string>& caChainPem,
                                                  std::string& rootCaPem) = 0;

    // The CA certificates (PEM, issuer first) of the chain of the certificate
    // named `friendlyName`.
    virtual bool RetrieveCACertificateChainFromStore(const std::string& storeName,
                                                     const std::string& friendlyName,
                                                     std::vector<std::string>& caChainPem) = 0;

    // Removes one stored certificate. A key no other certificate is bound to
    // goes with it.
    virtual bool DeleteCertificate(const CertContext& cert) = 0;

    // Removes every certificate of the store with this friendly name (and
    // keys no remaining certificate is bound to). True when none is left.
    virtual bool DeleteCertificates(const std::string& storeName,
                                    const std::string& friendlyName) = 0;

    // The machine's trusted root certificates, one PEM text each.
    virtual std::vector<std::string> RetrieveSystemCertificates() = 0;

    // Adds `certPem` to an open store (named or in-memory), as
    // ImportCertificateToStore does.
    virtual bool ImportCertificate(const std::string& certPem, const CertStorePtr& store,
                                   const std::string& friendlyName,
                                   const std::vector<std::uint8_t>& keyBlob,
                                   const std::string& container) = 0;

    // The chain of `cert` to a trusted root, using the machine's stores and
    // `additionalStore` for the issuers. An untrusted or incomplete chain is
    // still returned, with its trust status set; null only on failure.
    virtual CertChainPtr BuildCertificateChain(const CertContext* cert,
                                               const CertStorePtr& additionalStore) = 0;

    // The CA certificates of the chain of `cert` (PEM, issuer first, root
    // last) and its root.
    virtual bool RetrieveCACertificateChain(const CertContext& cert, const CertStorePtr& store,
                                            std::vector<std::string>& caChainPem) = 0;
    virtual bool RetrieveRootCACertificate(const CertContext& cert, const CertStorePtr& store,
                                           std::string& rootCaPem) = 0;

    // One PEM text per certificate of the first simple chain.
    virtual bool ConvertChainCtxToPEM(const CertChain* chain, std::vector<std::string>& pems) = 0;

    // SSL server policy of a built chain for `serverName` (DNS name or IP
    // address; empty skips the name). True when the check could be made;
    // `policyStatus` is then one of policy::k*.
    virtual bool VerifyCertChain(const CertChain* chain, const std::string& serverName,
                                 bool ignoreUntrustedRoot, bool ignoreName,
                                 std::uint32_t& policyStatus) = 0;

    // Builds the chain of `cert` again with revocation checking of every
    // certificate below the root, against the CRLs kept in the store and
    // `crlPems`, for server authentication. Issuers come from the machine's
    // stores and, when `cert` belongs to an in-memory store, from that store.
    // Out: the first simple chain's error and information status (trust::k*).
    virtual bool VerifyCertRevocation(const CertContext* cert,
                                      const std::vector<std::string>& crlPems,
                                      std::uint32_t& errorStatus, std::uint32_t& infoStatus) = 0;

    // --- Operations the store needs beyond the above ---

    // An empty in-memory store (chain building from certificates at hand).
    virtual CertStorePtr OpenMemoryStore() = 0;

    // Every certificate of an open store, in the order they were added.
    virtual std::vector<CertContext> EnumerateCertificates(const CertStorePtr& store) = 0;

    // Imports certificates and removes every earlier certificate named
    // `replaceFriendlyName` (with its key, unless still bound elsewhere), all
    // in one transaction: a crash leaves the old or the new set, never
    // neither.
    struct Import {
        std::string certPem;
        std::string friendlyName;
        std::vector<std::uint8_t> keyBlob;  // empty: no key
        std::string container;
    };
    virtual bool ReplaceCertificates(const std::string& storeName,
                                     const std::string& replaceFriendlyName,
                                     const std::vector<Import>& imports) = 0;

    // Renames the certificate(s) named `fromFriendlyName` to `toFriendlyName`
    // and removes those that had `toFriendlyName`, with their keys, in one
    // transaction. On failure nothing has changed; the result names the step
    // that failed and `errorCode` the store's error.
    enum class PromoteResult { Promoted, NotFound, RenameFailed, KeyRemovalFailed, RemovalFailed };
    virtual PromoteResult PromoteCertificate(const std::string& storeName,
                                             const std::string& fromFriendlyName,
                                             const std::string& toFriendlyName, int& errorCode) = 0;

    // Keeps a CRL (PEM) in the store for revocation checks.
    virtual bool AddCrl(const std::string& storeName, const std::string& crlPem) = 0;

    // Whether a key is kept under `container`.
    virtual bool KeyExists(const std::string& container) = 0;
};

// The machine's store (certstore.sqlite under the root prefix) with the
// system's trusted roots.
std::shared_ptr<CertUtilityInterface> makePlatformCertStore();

}  // namespace ndpx::certs
