// The manager's production wiring: pairing data from the settings and
// certificate stores, the client certificate checks, and the credential
// service over the HTTPS client.

#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "mqtt/ManagerDependencies.h"
#include "net/HttpRequest.h"

#include <mfw/corelock.h>
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
bool checkCertificateValidity(certs::CertificateUtil& certificates, const std::string& identity) {
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

std::optional<ConnectionMaterial> storedMaterial(certs::CertificateUtil& certificates,
                                                 const std::shared_ptr<mqttConfig>& cfg) {
    const std::string identity = cfg->getAgentIdentity();
    if (identity.empty()) {
        return std::nullopt;
    }
    pairingConfig pairing(*cfg);
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
    material.publicKeyPem = credentials.publicKeyPem;
    material.chainRootPem = credentials.rootCaPem;
    certificates.RetrieveSystemCACertificates(material.systemRootsPem);
    return material;
}

// The credential service over a fresh HTTPS request per exchange; cancel()
// ends the one in flight.
class HttpsCredentialRequester : public CredentialRequester {
public:
    bool request(const OtpRequest& r, std::string& response) override {
        const net::HttpRequestPtr request = net::curlHttpRequestFactory()();
        {
            CORE::MutexLock lock(mutex_);
            if (std::exchange(cancelled_, false)) {
                return false;  // cancelled before it began
            }
            active_ = request;
        }
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
        const bool ok = request->postSync(net::ContentType::Json, r.url, r.body, response);
        CORE::MutexLock lock(mutex_);
        active_.reset();
        return ok && !std::exchange(cancelled_, false);
    }

    void cancel() override {
        net::HttpRequestPtr active;
        {
            CORE::MutexLock lock(mutex_);
            cancelled_ = true;
            active = active_;
        }
        if (active) {
            active->cancelRequest();
        }
    }

private:
    CORE::Mutex mutex_;
    net::HttpRequestPtr active_ MFW_GUARDED_BY(mutex_);
    bool cancelled_ MFW_GUARDED_BY(mutex_) = false;
};

}  // namespace

MqttManagerDependencies defaultDependencies() {
    MqttManagerDependencies deps;
    auto certificates = std::make_shared<certs::CertificateUtil>();
    deps.certificates = certificates;
    deps.connectionMaterial = [certificates] {
        auto cfg = mqttConfig::current();
        return cfg ? storedMaterial(*certificates, cfg) : std::nullopt;
    };
    deps.clientCertificateUsable = [certificates] {
        auto cfg = mqttConfig::current();
        return cfg && checkCertificateValidity(*certificates, cfg->getAgentIdentity());
    };
    deps.credentials = std::make_shared<HttpsCredentialRequester>();
    return deps;
}

}  // namespace ndpx
