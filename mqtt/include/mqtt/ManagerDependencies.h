#pragma once
// What the manager needs from outside it: the clock, the settings, the MQTT
// client library, the stores that hold the pairing data and certificates,
// and the services that own some inbound topics. Production wiring comes
// from defaultDependencies(); tests pass their own.

#include "config/mqttConfig.h"
#include "ipc/IPCLibServer.h"
#include "mqtt/MqttClient.h"
#include "templates/TemplateHandler.h"

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>
#include <platform/TimeSource.h>

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ndpx {

namespace certs {
class CertificateUtil;
}

// What a connection needs from pairing.
struct ConnectionMaterial {
    std::string endpointUrl{};
    std::string clientId{};
    std::string bootstrapTopic{};
    std::string caCertPem{};  // the pairing CA, first in the trust store
    std::string clientCertPem{};
    std::string privateKeyPem{};   // a secret: never logged
    std::string publicKeyPem{};    // the agent's public key, published with "AVAILABLE"
    std::string chainRootPem{};    // the top of the client certificate's chain
    std::string systemRootsPem{};  // the machine's trusted roots, appended to the trust store
};

// The one-time-password exchange at the credential service.
struct OtpRequest {
    std::string url;
    std::string body;  // {"vmId", "otp", "clientCsr"}: holds a secret, never logged
    std::string thumbprint;
    bool checkRevocation = true;
    std::string proxyServer;
    std::string proxyBypass;
    std::string proxyAutoConfigUrl;
    std::uint32_t timeoutSeconds = 150;
};

// Sends the one-time-password request. Requests may run at once (pairing and
// renewal); each ends, returning false, as soon as its `abort` is set.
class CredentialRequester {
public:
    virtual ~CredentialRequester() = default;
    // True and the answer body when the exchange itself worked.
    virtual bool request(const OtpRequest& request, std::string& response,
                         CORE::coreevent& abort) = 0;
};

struct MqttManagerDependencies {
    platform::TimeSource* time = &platform::TimeSource::real();
    // Start runs the registration thread (tests of the session logic drive
    // the steps themselves).
    bool runRegistrationThread = true;
    // TCP_NODELAY on the broker socket after every connection (off only to
    // measure what it is worth).
    bool setNoDelay = true;
    // The configuration in force; by default the process's loaded one.
    std::function<std::shared_ptr<mqttConfig>()> config;
    // The MQTT client library; by default the real one.
    MqttClientFactory clientFactory;
    // The client certificate and its keys; by default over the machine's store.
    std::shared_ptr<certs::CertificateUtil> certificates;
    // Connection material from the pairing data; nullopt when there is none.
    std::function<std::optional<ConnectionMaterial>()> connectionMaterial;
    // The handler of the credentials-token topic; by default the
    // certificate monitor.
    std::function<void(const Json::Value&)> otpTokenHandler;
    // Is the current (or else the pending) client certificate present, valid
    // and issued to the agent identity? Healing goes back to requiring a new
    // pairing when it is not. By default the certificate monitor answers.
    std::function<bool()> clientCertificateUsable;
    // The credential service.
    std::shared_ptr<CredentialRequester> credentials;
    // The machine's domain membership, time zone and Azure AD join state,
    // for the template handler.
    TemplateBackends templateBackends;
    // The IPC bridge's transport; by default this system's own.
    IPCLibServer::ContextFactory ipcTransport;
};

// The production wiring: pairing data and certificates from the machine's
// stores, the HTTPS client, the certificate checks.
MqttManagerDependencies defaultDependencies();

}  // namespace ndpx
