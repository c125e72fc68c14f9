// The manager's production wiring: pairing data from the settings and
// certificate stores, and the client certificate checks.

#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "mqtt/MqttManager.h"
#include "net/HttpRequest.h"

#include <mfw/moduleLog.h>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace ndpx {
namespace {

struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};

// Present, within its validity period and issued to `identity`.
bool certificateValid(const char* which, const std::string& pem, const std::string& identity) {
    constexpr const char* kPrefix =
        "CertMonitor::CheckCertificateValidity::<lambda_1>::operator ()(): ";
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    std::unique_ptr<X509, X509Free> cert(
        bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert) {
        return false;
    }
    char cn[256] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, cn, sizeof cn);
    if (identity != cn) {
        MFW_LOG(CORE::kLogWarning, "%s%s certificate identity doesn't match agent identity.",
                kPrefix, which);
        return false;
    }
    if (X509_cmp_current_time(X509_get0_notBefore(cert.get())) >= 0 ||
        X509_cmp_current_time(X509_get0_notAfter(cert.get())) <= 0) {
        MFW_LOG(CORE::kLogWarning, "%s%s certificate has expired or is not yet valid.", kPrefix,
                which);
        return false;
    }
    MFW_LOG(CORE::kLogDebug, "%s%s certificate is valid.", kPrefix, which);
    return true;
}

// The current client certificate, or else the pending one, is usable for
// the active identity.
bool checkCertificateValidity(const std::string& identity) {
    certs::CertificateUtil certificates;
    certs::ClientCredentials current;
    if (certificates.RetrieveCertificates(false, identity, current) &&
        certificateValid("Current", current.clientCertPem, identity)) {
        return true;
    }
    if (current.clientCertPem.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::CheckCertificateValidity(): Unable to retrieve client certificate");
    }
    certs::ClientCredentials pending;
    if (!certificates.RetrieveCertificates(true, identity, pending)) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::CheckCertificateValidity(): Pending client certificate not present.");
        return false;
    }
    return certificateValid("Pending", pending.clientCertPem, identity);
}

std::optional<ConnectionMaterial> storedMaterial(const std::shared_ptr<mqttConfig>& cfg) {
    const std::string identity = cfg->getAgentIdentity();
    if (identity.empty()) {
        return std::nullopt;
    }
    pairingConfig pairing(*cfg);
    certs::CertificateUtil certificates;
    if (!pairing.RetrievePairingData(certificates, identity)) {
        return std::nullopt;
    }
    certs::ClientCredentials credentials;
    if (!certificates.RetrieveCertificates(false, identity, credentials)) {
        return std::nullopt;
    }
    ConnectionMaterial material;
    material.endpointUrl = pairing.endpointUrl();
    material.clientId = identity;
    material.bootstrapTopic = pairing.bootstrapTopic();
    material.caCertPem = pairing.caCert();
    material.clientCertPem = credentials.clientCertPem;
    material.privateKeyPem = credentials.privateKeyPem;
    certificates.RetrieveSystemCACertificates(material.rootCaPem);
    return material;
}

}  // namespace

MqttManagerDependencies defaultDependencies() {
    MqttManagerDependencies deps;
    deps.connectionMaterial = [] {
        auto cfg = mqttConfig::current();
        return cfg ? storedMaterial(cfg) : std::nullopt;
    };
    deps.clientCertificateUsable = [] {
        auto cfg = mqttConfig::current();
        return cfg && checkCertificateValidity(cfg->getAgentIdentity());
    };
    deps.otpRequester = [](const OtpRequest& r, std::string& response) {
        const net::HttpRequestPtr request = net::curlHttpRequestFactory()();
        request->setTimeout(r.timeoutSeconds);
        if (!r.thumbprint.empty()) {
            request->setPinnedThumbprint(r.thumbprint);
        }
        if (r.checkRevocation) {
            request->enableRevocationCheck();
        }
        if (!r.proxyServer.empty()) {
            request->setProxyServer(r.proxyServer);
        }
        if (!r.proxyBypass.empty()) {
            request->setProxyBypass(r.proxyBypass);
        }
        if (!r.proxyAutoConfigUrl.empty()) {
            request->setPacUrl(r.proxyAutoConfigUrl);
        }
        return request->postSync(net::ContentType::Json, r.url, r.body, response);
    };
    return deps;
}

}  // namespace ndpx
