// The connection: client creation, connect, disconnect, tear-down, and the
// client library's connection callbacks.

#include "TlsRefusalProbe.h"
#include "config/MqttManagerUtil.h"
#include "config/EndpointUrl.h"
#include "mqtt/MqttManager.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>
#include <platform/SocketTuning.h>

#include <MQTTAsync.h>

namespace ndpx {
namespace {

constexpr const char* kNullGuidText = "00000000-0000-0000-0000-000000000000";

bool containsNoCase(const std::string& text, const std::string& word) {
    return CORE::toLowerAscii(text).find(CORE::toLowerAscii(word)) != std::string::npos;
}

}  // namespace

std::string MqttManager::connectionGuid() const {
    std::lock_guard lock(connectionLock_);
    return connectionGuid_;
}

std::string MqttManager::currentEndpoint() const {
    std::lock_guard lock(connectionLock_);
    return currentEndpoint_;
}

int MqttManager::lastEndpointResult(const std::string& endpoint) const {
    std::lock_guard lock(connectionLock_);
    auto it = endpointStatus_.find(endpoint);
    return it == endpointStatus_.end() ? -1 : it->second;
}

void MqttManager::recordEndpointResult(int result) {
    std::lock_guard lock(connectionLock_);
    endpointStatus_[currentEndpoint_] = result;
}

bool MqttManager::IsConnected() {
    std::shared_lock lock(clientLock_);
    return client_ && client_->isConnected();
}

bool MqttManager::writeTlsMaterial(const ConnectionMaterial& material,
                                   MqttConnectOptions& options) {
    // The library reads these files on every reconnect: they stay in place,
    // private, for as long as the client exists.
    std::string trust = material.caCertPem;
    if (material.rootCaPem.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::Connect(): Unable to append system CA to trust store");
    } else {
        if (!trust.empty() && trust.back() != '\n') {
            trust += '\n';
        }
        trust += material.rootCaPem;
    }
    const std::filesystem::path dir = persistenceFolder_;
    options.trustStoreFile = (dir / "mqtt-trust.pem").string();
    options.keyStoreFile = (dir / "mqtt-client.pem").string();
    options.privateKeyFile = (dir / "mqtt-client.key").string();
    std::string error;
    for (const auto& [file, text] : {std::pair{options.trustStoreFile, trust},
                                     std::pair{options.keyStoreFile, material.clientCertPem},
                                     std::pair{options.privateKeyFile, material.privateKeyPem}}) {
        if (!platform::paths::writePrivateFile(file, text, error)) {
            MFW_LOG(CORE::kLogError, "MqttManager::Connect(): Unable to write %s: %s", file.c_str(),
                    error.c_str());
            return false;
        }
    }
    return true;
}

int MqttManager::Connect() {
    if (endpointOnly_.exchange(false)) {
        if (IsConnected()) {
            MFW_LOG(CORE::kLogDebug,
                    "MqttManager::Connect(): Endpoint and CAcert are the same; Opting to not tear "
                    "down existing MQTT Connection.");
            return 1;
        }
    }

    bool hadClient = false;
    {
        std::shared_lock lock(clientLock_);
        hadClient = static_cast<bool>(client_);
    }
    if (hadClient) {
        // Retire the previous session: its topics, then the client.
        SubscribeTopics pending;
        SubscribeTopics current;
        {
            std::lock_guard lock(topicsLock_);
            pending = pendingTopics_;
            current = subscribeTopics_;
        }
        if (!pending.empty()) {
            if (pending == current) {
                MFW_LOG(CORE::kLogWarning,
                        "MqttManager::UnsubscribeFromTopics(): Not unsubscribing as the topics are "
                        "the same.");
            } else {
                for (const auto* t : {&pending.bootstrap, &pending.commands, &pending.configuration,
                                      &pending.dtemplate, &pending.otpToken}) {
                    UnsubscribeToTopic(*t);
                }
            }
            std::lock_guard lock(topicsLock_);
            pendingTopics_ = {};
        }
        TearDownConnection();
    }

    std::unique_lock lock(clientLock_);
    MFW_LOG(CORE::kLogDebug, "MqttManager::Connect(): Connecting MQTT.");
    SetState(MQTT_STATE_CONNECTING);

    std::string guid;
    if (auto made = CORE::makeGuid(); made && made->size() == 38) {
        guid = made->substr(1, 36);
    } else {
        MFW_LOG(CORE::kLogError,
                "MqttManager::Connect(): Error generating connection guid. Using default");
        guid = kNullGuidText;
    }

    const std::optional<ConnectionMaterial> material =
        deps_.connectionMaterial ? deps_.connectionMaterial() : std::nullopt;
    if (!material) {
        MFW_LOG(CORE::kLogError, "MqttManager::Connect(): No pairing data to connect with");
        return 0;
    }
    {
        std::lock_guard cl(connectionLock_);
        connectionGuid_ = guid;
        currentEndpoint_ = material->endpointUrl;
        lastAttemptEndpoint_ = material->endpointUrl;
        const auto endpoint = parseEndpointUrl(material->endpointUrl);
        brokerHost_ = endpoint ? endpoint->host : std::string();
        brokerPort_ = endpoint ? endpoint->port : 0;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::Connect(): Endpoint URL: %s",
            material->endpointUrl.c_str());

    if (persistenceFolder_.empty() && RetrieveRootFolderPath(persistenceFolder_) != 1) {
        return 0;
    }
    auto cfg = config();
    MqttCreateOptions create;
    create.serverUri = material->endpointUrl;
    create.clientId = material->clientId;
    create.persistenceDir = persistenceFolder_;
    create.sendWhileDisconnected = cfg->getSendWhileDisconnected();
    create.maxBufferedMessages = cfg->getMaxBufferedMessages();
    create.allowDisconnectedSendAtAnyTime = cfg->getAllowDisconnectedSendAtAnyTime();
    create.deleteOldestMessages = cfg->getDeleteOldestMessages();
    int rc = 0;
    client_ = deps_.clientFactory(create, *this, rc);
    if (!client_) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::Connect(): Failed to create client object, return code %d", rc);
        return 0;
    }
    MFW_LOG(CORE::kLogInfo, "MqttManager::Connect(): MQTT handle: %p",
            static_cast<void*>(client_.get()));
    int step = 0;
    rc = client_->attachCallbacks(step);
    if (rc != 0) {
        if (step == 1) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set callbacks, return code %d", rc);
        } else if (step == 2) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set reconnected callback, return code %d",
                    rc);
        } else {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set disconnected callback, return code %d",
                    rc);
        }
        return 0;
    }

    MqttConnectOptions options;
    options.keepAliveSeconds = cfg->getKeepAliveInterval();
    options.userName = material->clientId;
    options.connectTimeoutSeconds = 30;
    options.retryIntervalSeconds = cfg->getMsgRetryInterval();
    options.automaticReconnect = cfg->getAutomaticReconnect();
    options.minRetrySeconds = cfg->getReconnectIntervalMin();
    options.maxRetrySeconds = cfg->getReconnectIntervalMax();
    options.cleanStart = cfg->getCleanStart();
    options.sessionExpirySeconds = cfg->getSessionExpiryInterval();
    options.willTopic = publishTopics().desktopStatus;
    Json::Value will(Json::objectValue);
    will["status"] = CORE::toUtf8(cfg->getLWTMessage());
    will["guid"] = guid;
    options.willPayload = MqttManagerUtil::writeCompact(will);
    options.willQos = cfg->getLWTQoS();
    if (!writeTlsMaterial(*material, options)) {
        return 0;
    }

    rc = client_->connect(options);
    if (rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::Connect(): Failed to connect to MQTT broker, return code %d", rc);
        metrics_.ReportError("Unable to connect to MQTT broker");
        return 0;
    }
    return 1;
}

bool MqttManager::Disconnect(std::uint32_t timeoutMs) {
    // Called with clientLock held as writer.
    if (!client_ || !client_->isConnected()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Not connected, unable to disconnect");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Disconnecting from MQTT Server.");
    disconnectEvent_.reset();
    const int rc = client_->disconnect(static_cast<int>(timeoutMs));
    if (rc == MQTTASYNC_DISCONNECTED) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Client was already disconnected.");
        return true;
    }
    if (rc != 0) {
        MFW_LOG(CORE::kLogError, "MqttManager::Disconnect(): Disconnect failed, return code %d",
                rc);
        return false;
    }
    return disconnectEvent_.waitMs(timeoutMs);
}

void MqttManager::TearDownConnection() {
    const auto timeoutMs = static_cast<std::uint32_t>(config()->getDisconnectTimeout()) * 1000u;
    std::unique_lock lock(clientLock_);
    if (!Disconnect(timeoutMs)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::TearDownConnection(): Failed to disconnect from the MQTT Server.");
    }
    client_.reset();
}

void MqttManager::applyNoDelay() {
    std::string host;
    int port = 0;
    {
        std::lock_guard lock(connectionLock_);
        host = brokerHost_;
        port = brokerPort_;
    }
    if (!host.empty()) {
        const int n = platform::setNoDelayForPeer(host, port);
        MFW_LOG(CORE::kLogVerbose, "MqttManager::OnReconnected(): TCP_NODELAY set on %d socket(s)",
                n);
    }
}

// Library callbacks. They run on the library's threads: anything that takes
// clientLock or waits goes to the dispatch thread.

void MqttManager::onConnected(const std::string&) {
    OnReconnected();
}
void MqttManager::onConnectSuccess() {
    OnConnectionSuccess(true);
}
void MqttManager::onConnectFailure(const MqttFailure& f) {
    OnConnectionFailure(f);
}
void MqttManager::onConnectionLost(const std::string& cause) {
    OnConnectionLost(cause);
}
void MqttManager::onDisconnectSuccess() {
    OnDisconnectSuccess();
}
void MqttManager::onDisconnectFailure(const MqttFailure& f) {
    OnDisconnectFailure(f);
}
void MqttManager::onDisconnectReceived(int reasonCode) {
    OnDisconnectReceived(reasonCode);
}
void MqttManager::onSslError(const std::string& text) {
    OnSslError(text);
}
void MqttManager::onDeliveryComplete(int token) {
    OnDeliveryComplete(token);
}

void MqttManager::OnReconnected() {
    MFW_LOG(CORE::kLogInfo, "MqttManager::OnReconnected(): Reconnected to MQTT broker");
    // The library sets no TCP_NODELAY: without it every small answer waits
    // for the peer's delayed acknowledgement.
    if (deps_.setNoDelay) {
        applyNoDelay();
    }
    OnConnectionSuccess(false);
}

void MqttManager::OnConnectionSuccess(bool withResponseData) {
    SetState(MQTT_STATE_CONNECTED);
    duplicates_->SetConnected(true);
    consecutiveTlsFailures_ = 0;
    if (withResponseData) {
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::OnConnectionSuccess(): Successfully connected to MQTT Server.");
        return;
    }
    executor_.post([this] { postConnectWork(); });
}

void MqttManager::postConnectWork() {
    recordEndpointResult(kEndpointConnected);
    {
        std::lock_guard lock(endpointChangeLock_);
        previousEndpoint_.clear();
        endpointAttemptsLeft_ = 0;
    }
    SubscribeToTopics();

    CORE::PropertyBag request;
    request.set(
        L"ROOTCACERT",
        CORE::toWide(deps_.connectionMaterial
                         ? deps_.connectionMaterial().value_or(ConnectionMaterial{}).caCertPem
                         : std::string()));
    request.set(L"CERTSTORE", L"My");
    CORE::PropertyBag response;
    if (CORE::MessageHandler::SendMsg(L"DesktopManager", L"SetSSOv2Settings", request, response,
                                      60000) != 0) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnConnectionSuccess(): SSO Settings not set correctly.");
    }
}

void MqttManager::OnConnectionFailure(const MqttFailure& f) {
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::OnConnectionFailure(): MQTT connection failed. Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
    metrics_.ReportError("Connection failed");
    if (containsNoCase(f.message, "TLS") || containsNoCase(f.message, "SSL")) {
        recordEndpointResult(kEndpointTlsFailed);
        HandleUpdateEndpointRetries(true);
        return;
    }
    // The library words a refused handshake like any other failure: repeat
    // the handshake ourselves, off the library's thread, to tell them apart.
    executor_.post([this] {
        std::string host;
        int port = 0;
        {
            std::lock_guard lock(connectionLock_);
            host = brokerHost_;
            port = brokerPort_;
        }
        const std::filesystem::path dir = persistenceFolder_;
        const bool tls = !host.empty() &&
                         probeTls(host, port, (dir / "mqtt-trust.pem").string(),
                                  (dir / "mqtt-client.pem").string(),
                                  (dir / "mqtt-client.key").string()) == TlsProbeResult::Refused;
        if (tls) {
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::OnConnectionFailure(): The broker refused the TLS handshake");
        }
        recordEndpointResult(tls ? kEndpointTlsFailed : kEndpointFailed);
        HandleUpdateEndpointRetries(tls);
    });
}

void MqttManager::OnConnectionLost(const std::string& cause) {
    SetState(MQTT_STATE_NOT_CONNECTED);
    duplicates_->SetConnected(false);
    metrics_.ReportError("Connection lost");
    subscribedMask_ = 0;
    MFW_LOG(CORE::kLogInfo, "MqttManager::OnConnectionLost(): Connection lost: %s", cause.c_str());
}

void MqttManager::OnDisconnectSuccess() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::OnDisconnectSuccess(): Disconnect succeeded");
    disconnectEvent_.set();
}

void MqttManager::OnDisconnectFailure(const MqttFailure& f) {
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::OnDisconnectFailure(): MQTT disconnect failed. Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
}

void MqttManager::OnDisconnectReceived(int reasonCode) {
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::OnDisconnectReceived(): Received disconnect from broker. Reason: %d",
            reasonCode);
}

int MqttManager::OnSslError(const std::string& text) {
    MFW_LOG(CORE::kLogWarning, "MqttManager::OnSslError(): MQTT SSL error: %s", text.c_str());
    recordEndpointResult(kEndpointTlsFailed);
    if (!HandleUpdateEndpointRetries(true) &&
        text.find("certificate expired") != std::string::npos) {
        if (!StartHealingThread("client certificate expired")) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::OnSslError(): Unable to start the healing thread.");
        }
    }
    return 1;
}

}  // namespace ndpx
