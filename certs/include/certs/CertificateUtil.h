#pragma once
// The agent's client certificate on top of the certificate store: key and
// CSR in PEM for pairing, storage of the issued certificate under the current
// or pending friendly name, retrieval as PEM for the MQTT client, the expiry
// test and the promotion of a pending certificate.

#include "certs/CertUtilityInterface.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::certs {

inline constexpr const char* kClientCertStoreName = "My";
inline constexpr const char* kClientCertFriendlyName = "Agent Connect MQTT Client Certificate";
inline constexpr const char* kPendingClientCertFriendlyName =
    "Agent Connect MQTT Client Pending Certificate";

// What the MQTT client needs of a stored client certificate.
struct ClientCredentials {
    std::string clientCertPem;
    std::string privateKeyPem;  // unencrypted PKCS#8 PEM: a secret, never logged
    std::string publicKeyPem;
    std::string rootCaPem;                // the top of the chain
    std::vector<std::string> caChainPem;  // issuer first, root last

    // The CA certificates as one PEM text, issuer first.
    std::string caChainText() const;
};

class CertificateUtil {
public:
    // Over the machine's store.
    CertificateUtil();
    explicit CertificateUtil(std::shared_ptr<CertUtilityInterface> store);

    const std::shared_ptr<CertUtilityInterface>& store() const { return store_; }

    // kPendingClientCertFriendlyName or kClientCertFriendlyName.
    static const char* FriendlyName(bool pending);

    // Creates a key in `container` and a CSR with `commonName` as subject.
    // Out: the MS private-key blob (for StoreCertificates), the private key as
    // unencrypted PKCS#1 PEM and the CSR as PEM.
    bool GenerateKeyAndCSR(const std::string& commonName, const std::string& container,
                           std::vector<std::uint8_t>& keyBlob, std::string& privateKeyPem,
                           std::string& csrPem);

    // Stores the client certificate, bound to the key, under the current or
    // pending friendly name in "My", replacing earlier certificates of that
    // name, and the CA certificate; all or nothing.
    bool StoreCertificates(bool pending, const std::string& clientCertPem,
                           const std::string& caCertPem, const std::vector<std::uint8_t>& keyBlob,
                           const std::string& container);

    // The current or pending client certificate (with `commonName` when not
    // empty), its private and public key, root and CA chain.
    bool RetrieveCertificates(bool pending, const std::string& commonName, ClientCredentials& out);

    // PKCS#12 (empty password) to PEM certificate, private key and public key.
    bool DecodeKey(const std::vector<std::uint8_t>& pkcs12, std::string& certPem,
                   std::string& privateKeyPem, std::string& publicKeyPem);

    // Finds the current or pending client certificate and builds its chain;
    // the certificate is chain->endCertificate(). `chain` must not be null.
    bool RetrieveClientCertificateContext(bool pending, CertChainPtr* chain);

    // True when a certificate of the chain's first simple chain is not valid
    // at `when` (callers pass now plus their threshold). A missing or empty
    // chain answers false, with a log line.
    bool WillCertChainExpire(const CertChain* chain, std::chrono::system_clock::time_point when);

    // The pending certificate becomes the current one; the old current
    // certificate and its key are removed. One transaction.
    bool ActivatePendingCertificate();

    // The subject common name, empty when there is none.
    std::string GetCertificateCN(const CertContext* context);

    // Removes the current or pending client certificate (and its key).
    bool RemoveClientCertificate(bool pending);

    // The machine's trusted root CAs as one PEM text, for the MQTT client's
    // trust store. False when none can be read.
    bool RetrieveSystemCACertificates(std::string& pemText);

private:
    std::shared_ptr<CertUtilityInterface> store_;
};

}  // namespace ndpx::certs
