#pragma once
// What pairing with the credential service yields: the broker endpoint, the
// agent's bootstrap topic, and the CA and client certificates. Parsed from
// the credentials response, kept in the settings store (endpoint, topic) and
// the certificate store (certificates), current or pending (a renewal not yet
// in use).

#include <json/value.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ndpx {

class mqttConfig;
namespace certs {
class CertificateUtil;
}  // namespace certs

// Values under the Node Manager key.
inline constexpr const char* kEndpointUrlValue = "mqtt_EndpointUrl";
inline constexpr const char* kBootstrapTopicValue = "mqtt_BootstrapTopic";
inline constexpr const char* kPendingEndpointUrlValue = "mqtt_PendingEndpointUrl";
inline constexpr const char* kPendingBootstrapTopicValue = "mqtt_PendingBootstrapTopic";

enum class CredentialsStatus {
    Success,
    NotJson,          // unparsable, or not a JSON object
    ErrorResponse,    // the service answered with "error"
    MissingProperty,  // a required member is absent or empty
    BadCertificate,   // "caCrt" or "clientCrt" is not base64
};

class pairingConfig {
public:
    // `config` gives the settings store and the agent identity; it must
    // outlive this object.
    explicit pairingConfig(mqttConfig& config);

    // Parses the credentials response. The fields change only on success.
    CredentialsStatus InitCredentialsFromJSON(const std::string& response);

    // Stores the parsed certificates (client with its key) and then endpoint
    // and topic, as current or pending values.
    bool StorePairingData(certs::CertificateUtil& certs, bool pending, const std::string& container,
                          const std::vector<std::uint8_t>& keyBlob);
    // Loads endpoint, topic and certificates; the client certificate must
    // carry `commonName`.
    bool RetrievePairingData(certs::CertificateUtil& certs, const std::string& commonName,
                             bool pending = false);
    // Makes the pending endpoint and topic current and removes the pending
    // values, so that they cannot be promoted a second time.
    bool activatePendingConfig();
    // "hostname", "port" (text), "wsEnabled" (bool) and "agentIdentity" from
    // the stored current endpoint URL.
    bool populateEndpointDetails(Json::Value& out);
    // The private key of the client certificate carrying `commonName`, as
    // unencrypted PEM for the TLS client. A secret: never logged.
    bool getSecureClientPrivateKey(certs::CertificateUtil& certs, const std::string& commonName,
                                   bool pending, std::string& keyPem);

    std::string endpointUrl() const;
    std::string bootstrapTopic() const;
    std::string caCert() const;
    std::string clientCert() const;

    // "ssl://host:port", or "wss://host:port/mqtt" over WebSocket.
    static std::string makeEndpointUrl(const std::string& host, const std::string& port,
                                       bool webSocket);

private:
    mqttConfig& config_;
    mutable std::mutex mutex_;
    std::string endpointUrl_;
    std::string bootstrapTopic_;
    std::string caCert_;
    std::string clientCert_;
};

}  // namespace ndpx
