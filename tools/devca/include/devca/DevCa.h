#pragma once
// A small certificate authority for development and tests: root and
// intermediate CAs, server and client certificates with chosen names and
// validity, CSR signing and CRLs. Used by the test suites (real chains
// instead of checked-in blobs) and by the development control plane.
//
// Keys are RSA-2048, signatures SHA-256, serial numbers unique (random high
// part, per-CA counter low part). A failure of OpenSSL itself (no memory, no
// randomness) throws std::runtime_error; a malformed IP address or DNS name
// for issueServer throws std::invalid_argument. Bad CSRs are not exceptional:
// signCsr answers nullopt. A CA loaded from PEM that does not parse throws
// std::runtime_error.

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::devca {

struct X509Deleter {
    void operator()(X509* p) const { X509_free(p); }
};
struct PkeyDeleter {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
using X509Ptr = std::unique_ptr<X509, X509Deleter>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

// Validity relative to now: [now + notBefore, now + notBefore + lifetime].
// A negative notBefore with a short lifetime gives an expired certificate; a
// positive notBefore one that is not yet valid.
struct Validity {
    std::chrono::seconds notBefore{-3600};
    std::chrono::seconds lifetime{std::chrono::hours(24 * 365)};
};

// Valid from a minute ago (a peer's clock may run a little behind ours) until
// exactly `lifetime` from now.
inline Validity validForNext(std::chrono::seconds lifetime) {
    return {std::chrono::seconds(-60), lifetime + std::chrono::seconds(60)};
}

struct Issued {
    X509Ptr cert;
    PkeyPtr key;  // empty when a CSR was signed (the requester keeps the key)
    std::string certPem;
    std::string keyPem;  // PKCS#8 PEM, empty when `key` is empty
    std::string serialHex;
};

class CertificateAuthority {
public:
    // A self-signed root CA (RSA-2048, SHA-256).
    static CertificateAuthority createRoot(const std::string& commonName, Validity v = {});
    // A CA kept outside the process (e.g. in files): `certPem` holds its
    // certificate, optionally followed by the chain up to its root; `keyPem`
    // its unencrypted private key. Throws std::runtime_error when either does
    // not parse, the certificate is not a CA or the key is not its key.
    static CertificateAuthority load(const std::string& certPem, const std::string& keyPem);
    // An intermediate CA signed by this one.
    CertificateAuthority createIntermediate(const std::string& commonName, Validity v = {});

    // A TLS server certificate; `dnsNames` and `ipAddresses` become the
    // subject alternative names.
    Issued issueServer(const std::string& commonName, const std::vector<std::string>& dnsNames,
                       const std::vector<std::string>& ipAddresses, Validity v = {});
    // A TLS client certificate with the given subject common name.
    Issued issueClient(const std::string& commonName, Validity v = {});
    // Signs a PEM CSR as a client certificate. The subject is taken from the
    // CSR unless `commonName` is given. nullopt if the CSR is bad or its
    // signature does not verify.
    std::optional<Issued> signCsr(const std::string& csrPem,
                                  const std::optional<std::string>& commonName = std::nullopt,
                                  Validity v = {});

    // Certificates issued from now on name `url` as where this CA's CRL is
    // published (CRL distribution point); empty names none.
    void setCrlDistributionPoint(std::string url) { crlUrl_ = std::move(url); }
    void revoke(const std::string& serialHex);
    // A CRL (PEM) listing every revoked serial, valid from an hour ago for a day.
    std::string crlPem() const;

    const std::string& certPem() const { return certPem_; }
    const std::string& keyPem() const { return keyPem_; }
    X509* cert() const { return cert_.get(); }
    EVP_PKEY* key() const { return key_.get(); }
    // The chain from this CA up to its root, this CA first (PEM, concatenated).
    std::string chainPem() const;

    // Writes certificate and key PEM files (mode 0600).
    bool writeFiles(const std::string& certFile, const std::string& keyFile) const;

private:
    CertificateAuthority() = default;
    X509Ptr cert_;
    PkeyPtr key_;
    std::string certPem_;
    std::string keyPem_;
    std::string parentChainPem_;
    std::vector<std::string> revoked_;
    std::string crlUrl_;
    long nextSerial_ = 1000;
};

// The serial number (upper-case hex) of the first certificate of a PEM text;
// empty when there is none.
std::string serialHexOfPem(const std::string& pem);

// Writes `text` to `path` with mode 0600 (atomically: temp file + rename).
bool writePrivateFile(const std::string& path, const std::string& text);

}  // namespace ndpx::devca
