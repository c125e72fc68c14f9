#include "certs/pairingConfig.h"

#include "certs/CertificateUtil.h"
#include "config/EndpointUrl.h"
#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <openssl/crypto.h>

namespace ndpx {
namespace {

std::string readValue(mqttConfig& config, const char* name) {
    const auto value = config.store().get(kNodeManagerKey, name);
    return value ? value->asText() : std::string();
}

bool writeValue(mqttConfig& config, const char* name, const std::string& text) {
    if (config.store().set(kNodeManagerKey, name, platform::SettingValue::ofString(text))) {
        return true;
    }
    MFW_LOG(CORE::kLogError, "pairingConfig: Unable to write %s to the settings store: %s", name,
            config.store().lastWriteError().c_str());
    return false;
}

// Base64 of PEM text to the PEM text; nothing for bad or empty input.
bool decodePem(const std::string& base64, std::string& pem) {
    const auto bytes = CORE::base64Decode(base64);
    if (!bytes || bytes->empty()) {
        return false;
    }
    pem.assign(bytes->begin(), bytes->end());
    return true;
}

}  // namespace

pairingConfig::pairingConfig(mqttConfig& config) : config_(config) {}

std::string pairingConfig::makeEndpointUrl(const std::string& host, const std::string& port,
                                           bool webSocket) {
    return webSocket ? "wss://" + host + ":" + port + "/mqtt" : "ssl://" + host + ":" + port;
}

CredentialsStatus pairingConfig::InitCredentialsFromJSON(const std::string& response) {
    Json::Value json;
    if (!MqttManagerUtil::parseJson(response, json) || !json.isObject()) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): Failed to parse credentials as JSON");
        return CredentialsStatus::NotJson;
    }
    if (json.isMember("error")) {
        std::string error;
        std::string message;
        std::string status;
        JsonUtil::GetStringProperty(json, "error", error);
        JsonUtil::GetStringProperty(json, "message", message);
        JsonUtil::GetStringProperty(json, "status", status);
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): Error response found in credentials "
                "response. Status:%s, Error:%s, Message:%s",
                status.c_str(), error.c_str(), message.c_str());
        return CredentialsStatus::ErrorResponse;
    }

    std::string topic;
    if (!JsonUtil::GetStringProperty(json, "agentBootstrapTopic", topic)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): agentBootstrapTopic property not found "
                "in JSON");
        return CredentialsStatus::MissingProperty;
    }
    MFW_LOG(CORE::kLogDebug, "pairingConfig::InitCredentialsFromJSON(): Agent Bootstrap topic: %s",
            topic.c_str());

    std::string host;
    std::string port;
    for (auto [key, target] : {std::pair{"mqttServerHost", &host}, {"mqttServerPort", &port}}) {
        if (!JsonUtil::GetStringProperty(json, key, *target)) {
            MFW_LOG(CORE::kLogError,
                    "pairingConfig::InitCredentialsFromJSON(): %s property not found in JSON", key);
            return CredentialsStatus::MissingProperty;
        }
    }
    bool webSocket = false;
    if (!JsonUtil::GetBooleanProperty(json, "wsEnabled", webSocket)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): %s property not set in JSON",
                "wsEnabled");
        return CredentialsStatus::MissingProperty;
    }
    std::string endpoint = makeEndpointUrl(host, port, webSocket);
    MFW_LOG(CORE::kLogDebug, "pairingConfig::InitCredentialsFromJSON(): MQTT Endpoint URL: %s",
            endpoint.c_str());

    std::string caCrt;
    if (!JsonUtil::GetStringProperty(json, "caCrt", caCrt)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): caCrt property not found in JSON");
        return CredentialsStatus::MissingProperty;
    }
    std::string clientCrt;
    if (!JsonUtil::GetStringProperty(json, "clientCrt", clientCrt)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): clientCrt property not found in JSON");
        return CredentialsStatus::MissingProperty;
    }
    MFW_LOG(CORE::kLogVerbose,
            "pairingConfig::InitCredentialsFromJSON(): nexHub returned the following "
            "certificates:\r\ncaCrt:\r\n%s\r\nclientCrt:\r\n%s",
            caCrt.c_str(), clientCrt.c_str());
    std::string caPem;
    if (!decodePem(caCrt, caPem)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): Base64 decode of caCrt failed.");
        return CredentialsStatus::BadCertificate;
    }
    std::string clientPem;
    if (!decodePem(clientCrt, clientPem)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::InitCredentialsFromJSON(): Base64 decode of clientCrt failed.");
        return CredentialsStatus::BadCertificate;
    }

    std::lock_guard lock(mutex_);
    endpointUrl_ = std::move(endpoint);
    bootstrapTopic_ = std::move(topic);
    caCert_ = std::move(caPem);
    clientCert_ = std::move(clientPem);
    return CredentialsStatus::Success;
}

bool pairingConfig::StorePairingData(certs::CertificateUtil& certs, bool pending,
                                     const std::string& container,
                                     const std::vector<std::uint8_t>& keyBlob) {
    std::string endpoint;
    std::string topic;
    std::string caPem;
    std::string clientPem;
    {
        std::lock_guard lock(mutex_);
        endpoint = endpointUrl_;
        topic = bootstrapTopic_;
        caPem = caCert_;
        clientPem = clientCert_;
    }
    // Nothing parsed yet: there is nothing to store, and an empty store call
    // would only remove the certificate in use.
    if (endpoint.empty() || topic.empty() || caPem.empty() || clientPem.empty() ||
        !certs.StoreCertificates(pending, clientPem, caPem, keyBlob, container)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::StorePairingData(): Failed to store MQTT certificates.");
        return false;
    }
    const bool stored =
        writeValue(config_, pending ? kPendingEndpointUrlValue : kEndpointUrlValue, endpoint) &&
        writeValue(config_, pending ? kPendingBootstrapTopicValue : kBootstrapTopicValue, topic);
    if (!stored) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::StorePairingData(): Failed to store MQTT endpoint details.");
        return false;
    }
    return true;
}

bool pairingConfig::RetrievePairingData(certs::CertificateUtil& certs,
                                        const std::string& commonName, bool pending) {
    const std::string endpoint =
        readValue(config_, pending ? kPendingEndpointUrlValue : kEndpointUrlValue);
    const std::string topic =
        readValue(config_, pending ? kPendingBootstrapTopicValue : kBootstrapTopicValue);

    certs::ClientCredentials credentials;
    if (!certs.RetrieveCertificates(pending, commonName, credentials)) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::RetrievePairingData(): Unable to retrieve MQTT certificates with "
                "common name %s.",
                commonName.c_str());
        return false;
    }
    // The key was needed only to prove the certificate usable; drop it now.
    OPENSSL_cleanse(credentials.privateKeyPem.data(), credentials.privateKeyPem.size());
    credentials.privateKeyPem.clear();
    std::string caPem = credentials.caChainText();
    std::string clientPem = std::move(credentials.clientCertPem);
    if (endpoint.empty() || topic.empty() || caPem.empty() || clientPem.empty()) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::RetrievePairingData(): Incomplete pairing data configuration");
        return false;
    }
    MFW_LOG(CORE::kLogVerbose,
            "pairingConfig::RetrievePairingData(): Retrieved certificates from the "
            "store:\r\ncn:\r\n%s\r\ncaCert:\r\n%s\r\nclientCert:\r\n%s",
            commonName.c_str(), caPem.c_str(), clientPem.c_str());
    MFW_LOG(CORE::kLogDebug,
            "pairingConfig::RetrievePairingData(): Retrieved endpoint details: Endpoint URL: %s. "
            "Bootstrap Topic: %s.",
            endpoint.c_str(), topic.c_str());

    std::lock_guard lock(mutex_);
    endpointUrl_ = endpoint;
    bootstrapTopic_ = topic;
    caCert_ = std::move(caPem);
    clientCert_ = std::move(clientPem);
    return true;
}

bool pairingConfig::activatePendingConfig() {
    const std::string endpoint = readValue(config_, kPendingEndpointUrlValue);
    const std::string topic = readValue(config_, kPendingBootstrapTopicValue);
    const bool activated = !endpoint.empty() && !topic.empty() &&
                           writeValue(config_, kEndpointUrlValue, endpoint) &&
                           writeValue(config_, kBootstrapTopicValue, topic);
    if (!activated) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::activatePendingConfig(): Unable to activate pending registry from "
                "pending config.");
        return false;
    }
    config_.store().remove(kNodeManagerKey, kPendingEndpointUrlValue);
    config_.store().remove(kNodeManagerKey, kPendingBootstrapTopicValue);
    return true;
}

bool pairingConfig::populateEndpointDetails(Json::Value& out) {
    const std::string endpoint = readValue(config_, kEndpointUrlValue);
    if (endpoint.empty()) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::populateEndpointDetails(): Unable to retrieve endpoint details. No "
                "endpoint.");
        return false;
    }
    const auto parts = parseEndpointUrl(endpoint);
    if (!parts) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::populateEndpointDetails(): Unable to parse endpoint URL.");
        return false;
    }
    out["hostname"] = parts->host;
    out["wsEnabled"] = !CORE::iequals(parts->scheme.substr(0, 3), "ssl");
    out["port"] = std::to_string(parts->port);
    out["agentIdentity"] = config_.getAgentIdentity();
    return true;
}

bool pairingConfig::getSecureClientPrivateKey(certs::CertificateUtil& certs,
                                              const std::string& commonName, bool pending,
                                              std::string& keyPem) {
    keyPem.clear();
    certs::ClientCredentials credentials;
    if (!certs.RetrieveCertificates(pending, commonName, credentials) ||
        credentials.privateKeyPem.empty()) {
        MFW_LOG(CORE::kLogError,
                "pairingConfig::getSecureClientPrivateKey(): Unable to retrieve the client "
                "certificate's private key.");
        return false;
    }
    keyPem = std::move(credentials.privateKeyPem);
    return true;
}

std::string pairingConfig::endpointUrl() const {
    std::lock_guard lock(mutex_);
    return endpointUrl_;
}
std::string pairingConfig::bootstrapTopic() const {
    std::lock_guard lock(mutex_);
    return bootstrapTopic_;
}
std::string pairingConfig::caCert() const {
    std::lock_guard lock(mutex_);
    return caCert_;
}
std::string pairingConfig::clientCert() const {
    std::lock_guard lock(mutex_);
    return clientCert_;
}

}  // namespace ndpx
