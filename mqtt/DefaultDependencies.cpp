// The manager's production wiring: pairing data from the settings and
// certificate stores, the client certificate checks, and the credential
// service over the HTTPS client.

#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "mqtt/ManagerDependencies.h"
#include "net/HttpBackend.h"

#include <mfw/coreevent.h>
#include <mfw/moduleLog.h>

#include <condition_variable>
#include <memory>
#include <mutex>

namespace ndpx {
namespace {

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

// The credential service over a fresh HTTPS request per exchange. The
// request runs on the HTTPS client's own thread, so that an abort, whenever
// it comes, finds it running and cancels it.
class HttpsCredentialRequester : public CredentialRequester {
public:
    bool request(const OtpRequest& r, std::string& response, CORE::coreevent& abort) override {
        const net::HttpRequestPtr request = net::makeHttpRequest();
        if (!request) {
            return false;
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
        struct Exchange {
            std::mutex mutex;
            std::condition_variable ended;
            bool done = false;
            bool aborted = false;
            bool ok = false;
            std::uint32_t status = 0;
            std::string body;
        };
        auto exchange = std::make_shared<Exchange>();
        const bool started =
            request->postAsync(net::ContentType::Json, r.url, r.body,
                               [exchange](net::HttpRequest* req, std::string body) {
                                   std::lock_guard lock(exchange->mutex);
                                   exchange->ok = req->isSuccess();
                                   exchange->status = req->getResponseCode();
                                   exchange->body = std::move(body);
                                   exchange->done = true;
                                   exchange->ended.notify_all();
                               });
        if (!started) {
            return false;
        }
        {
            CORE::coreevent::Waker stop(abort, [exchange] {
                std::lock_guard lock(exchange->mutex);
                exchange->aborted = true;
                exchange->ended.notify_all();
            });
            std::unique_lock lock(exchange->mutex);
            // The overall budget, as a synchronous request keeps it.
            exchange->ended.wait_for(lock, std::chrono::seconds(r.timeoutSeconds),
                                     [&] { return exchange->done || exchange->aborted; });
        }
        // Ends a request still running; no callback runs once this returns.
        request->cancelRequest();
        std::lock_guard lock(exchange->mutex);
        if (!exchange->done) {
            return false;
        }
        // A failed transfer has said why; an answer that is no success has not.
        if (!exchange->ok && exchange->status != 0) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::MakeOTPRequest(): The credential service answered with HTTP "
                    "status %u",
                    exchange->status);
        }
        response = std::move(exchange->body);
        return exchange->ok;
    }
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
    deps.credentials = std::make_shared<HttpsCredentialRequester>();
    return deps;
}

}  // namespace ndpx
