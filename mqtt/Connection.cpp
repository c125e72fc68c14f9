// The manager's side of the connection: Connect with its options, the
// tear-down, and the library's connection callbacks, which arrive here on
// the executor.

#include "TlsRefusalProbe.h"
#include "config/MqttManagerUtil.h"
#include "mqtt/MqttManager.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>
#include <platform/SocketTuning.h>

#include <fstream>
#include <tuple>

namespace ndpx {
namespace {

constexpr const char* kNullGuidText = "00000000-0000-0000-0000-000000000000";

bool containsNoCase(const std::string& text, const std::string& word) {
    return CORE::toLowerAscii(text).find(CORE::toLowerAscii(word)) != std::string::npos;
}

// The base64 body of a PEM text (the DER it armours).
std::string pemBody(const std::string& pem) {
    std::string body;
    std::size_t pos = 0;
    while (pos < pem.size()) {
        auto end = pem.find('\n', pos);
        if (end == std::string::npos) {
            end = pem.size();
        }
        std::string line = pem.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.rfind("-----", 0) != 0) {
            body += line;
        }
        pos = end + 1;
    }
    return body;
}

// True when `file` holds exactly `text`.
bool holds(const std::string& file, const std::string& text) {
    std::ifstream in(file, std::ios::binary);
    std::string current(text.size() + 1, '\0');
    in.read(current.data(), static_cast<std::streamsize>(current.size()));
    return static_cast<std::size_t>(in.gcount()) == text.size() &&
           current.compare(0, text.size(), text) == 0;
}

}  // namespace

bool MqttManager::IsConnected() {
    return connection_.isConnected();
}

std::uint32_t MqttManager::disconnectTimeoutMs() const {
    return static_cast<std::uint32_t>(config()->getDisconnectTimeout()) * 1000u;
}

std::string MqttManager::persistenceFolder() {
    {
        CORE::MutexLock lock(materialLock_);
        if (!persistenceFolder_.empty()) {
            return persistenceFolder_;
        }
    }
    std::string folder;
    if (RetrieveRootFolderPath(folder) != 1) {
        return {};
    }
    CORE::MutexLock lock(materialLock_);
    persistenceFolder_ = folder;
    return folder;
}

bool MqttManager::writeTlsMaterial(const ConnectionMaterial& material,
                                   MqttConnectOptions& options) {
    // The library reads these files on every reconnect: they stay in place,
    // private, for as long as the client exists.
    std::string trust = material.caCertPem;
    if (material.systemRootsPem.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::Connect(): Unable to append system CA to trust store");
    } else {
        if (!trust.empty() && trust.back() != '\n') {
            trust += '\n';
        }
        trust += material.systemRootsPem;
    }
    const std::filesystem::path dir = persistenceFolder();
    options.trustStoreFile = (dir / "mqtt-trust.pem").string();
    options.keyStoreFile = (dir / "mqtt-client.pem").string();
    options.privateKeyFile = (dir / "mqtt-client.key").string();
    std::string error;
    for (const auto& [file, text, secret] :
         {std::tuple{options.trustStoreFile, trust, false},
          std::tuple{options.keyStoreFile, material.clientCertPem, false},
          std::tuple{options.privateKeyFile, material.privateKeyPem, true}}) {
        // A reconnect mostly finds the same trust and certificate in place,
        // and rewriting one costs a sync to disk. The key is not read back:
        // that would only make another copy of it.
        if (!secret && holds(file, text)) {
            continue;
        }
        if (!platform::paths::writePrivateFile(file, text, error)) {
            MFW_LOG(CORE::kLogError, "MqttManager::Connect(): Unable to write %s: %s", file.c_str(),
                    error.c_str());
            return false;
        }
    }
    return true;
}

int MqttManager::Connect() {
    if (endpointOnly_.exchange(false) && IsConnected()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::Connect(): Endpoint and CAcert are the same; Opting to not tear "
                "down existing MQTT Connection.");
        return 1;
    }

    if (connection_.hasClient()) {
        // Retire the previous session: its topics, then the client.
        SubscribeTopics pending;
        SubscribeTopics current;
        {
            CORE::MutexLock lock(topicsLock_);
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
            CORE::MutexLock lock(topicsLock_);
            pendingTopics_ = {};
        }
        // The local clients' topics leave with the old session; the table
        // stays and the new session subscribes them again.
        if (config()->getIPCServerEnabled()) {
            ipc_->UnsubscribeToTopics();
        }
        // The client itself is replaced by the new one under a single
        // writer lock (below), so publishers never find the slot empty: what
        // they send meanwhile waits for the new client, which buffers it.
    }

    MFW_LOG(CORE::kLogDebug, "MqttManager::Connect(): Connecting MQTT.");
    setRunState(MQTT_STATE_CONNECTING);

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
        TearDownConnection();
        return 0;
    }
    info_.beginAttempt(guid, material->endpointUrl);
    {
        CORE::MutexLock lock(materialLock_);
        publicKey_ = pemBody(material->publicKeyPem);
        chainRootPem_ = material->chainRootPem;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::Connect(): Endpoint URL: %s",
            material->endpointUrl.c_str());

    const std::string folder = persistenceFolder();
    if (folder.empty()) {
        TearDownConnection();
        return 0;
    }
    auto cfg = config();
    MqttCreateOptions create;
    create.serverUri = material->endpointUrl;
    create.clientId = material->clientId;
    create.persistenceDir = folder;
    create.sendWhileDisconnected = cfg->getSendWhileDisconnected();
    create.maxBufferedMessages = cfg->getMaxBufferedMessages();
    create.allowDisconnectedSendAtAnyTime = cfg->getAllowDisconnectedSendAtAnyTime();
    create.deleteOldestMessages = cfg->getDeleteOldestMessages();
    create.storeLog = [](const std::string& line) {
        MFW_LOG(CORE::kLogWarning, "MessageStore: %s", line.c_str());
    };

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
    session_.setMarker(std::filesystem::path(folder) / "last-connected", material->clientId);
    if (duplicates_->IsEnabled() && !answeredLoaded_.exchange(true)) {
        // Before any command can arrive: those answered by an earlier
        // process may be delivered again.
        for (const auto& id :
             answered_->open(std::filesystem::path(folder) / "answered-commands")) {
            duplicates_->Record(id);
        }
    }
    if (!writeTlsMaterial(*material, options)) {
        TearDownConnection();
        return 0;
    }

    switch (connection_.open(create, options, disconnectTimeoutMs())) {
        case MqttConnection::Opened::Started:
            return 1;
        case MqttConnection::Opened::ConnectRefused:
            metrics_.ReportError("Unable to connect to MQTT broker");
            return 0;
        case MqttConnection::Opened::NotCreated:
        case MqttConnection::Opened::CallbacksRefused:
            return 0;
    }
    return 0;
}

bool MqttManager::Disconnect(std::uint32_t timeoutMs) {
    return connection_.disconnect(timeoutMs);
}

void MqttManager::TearDownConnection() {
    connection_.tearDown(disconnectTimeoutMs());
}

void MqttManager::applyNoDelay() {
    const auto broker = info_.broker();
    if (!broker.host.empty()) {
        const int n = platform::setNoDelayForPeer(broker.host, broker.port);
        MFW_LOG(CORE::kLogVerbose, "MqttManager::OnReconnected(): TCP_NODELAY set on %d socket(s)",
                n);
    }
}

// The library's callbacks, handed over by the connection: on the executor.

void MqttManager::onConnected(const std::string&, bool sessionPresent) {
    session_.connected(sessionPresent, config()->getCleanStart());
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
    if (stopRequested_) {
        return;  // the client is about to go: nothing to set up
    }
    setRunState(MQTT_STATE_CONNECTED);
    duplicates_->SetConnected(true);
    if (withResponseData) {
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::OnConnectionSuccess(): Successfully connected to MQTT Server.");
        return;
    }
    postConnectWork();
}

void MqttManager::postConnectWork() {
    info_.recordResult(kEndpointConnected);
    healing_.connected();
    SubscribeToTopics();
    if (config()->getIPCServerEnabled()) {
        StartIPCServer();
    }

    CORE::PropertyBag request;
    {
        CORE::MutexLock lock(materialLock_);
        request.set(L"ROOTCACERT", CORE::toWide(chainRootPem_));
    }
    request.set(L"CERTSTORE", L"My");
    if (sendToDesktopManager(L"SetSSOv2Settings", request) != 0) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnConnectionSuccess(): SSO Settings not set correctly.");
    }
    if (config()->getIPCServerEnabled() && pairedFlag_) {
        renewIpcSession();
    }
}

void MqttManager::OnConnectionFailure(const MqttFailure& f) {
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::OnConnectionFailure(): MQTT connection failed. Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
    metrics_.ReportError("Connection failed");
    if (containsNoCase(f.message, "TLS") || containsNoCase(f.message, "SSL")) {
        info_.recordResult(kEndpointTlsFailed);
        HandleUpdateEndpointRetries(true);
        return;
    }
    classifyConnectFailure();
}

void MqttManager::classifyConnectFailure() {
    // The library words a refused handshake like any other failure: repeat
    // the handshake ourselves (bounded, and ended when the manager stops).
    const auto broker = info_.broker();
    const std::filesystem::path dir = persistenceFolder();
    net::CancelToken stopping;
    CORE::coreevent::Waker cancelOnStop(shutdownEvent_, [&stopping] { stopping.cancel(); });
    const bool tls =
        !broker.host.empty() &&
        probeTls(broker.host, broker.port, (dir / "mqtt-trust.pem").string(),
                 (dir / "mqtt-client.pem").string(), (dir / "mqtt-client.key").string(),
                 &stopping) == TlsProbeResult::Refused;
    if (tls) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnConnectionFailure(): The broker refused the TLS handshake");
    }
    info_.recordResult(tls ? kEndpointTlsFailed : kEndpointFailed);
    HandleUpdateEndpointRetries(tls);
}

void MqttManager::OnConnectionLost(const std::string& cause) {
    reports_->Stop();
    certMonitor_->Stop();
    setRunState(MQTT_STATE_NOT_CONNECTED);
    duplicates_->SetConnected(false);
    metrics_.ReportError("Connection lost");
    subscribedMask_ = 0;
    session_.disconnected();
    MFW_LOG(CORE::kLogInfo, "MqttManager::OnConnectionLost(): Connection lost: %s", cause.c_str());
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
    info_.recordResult(kEndpointTlsFailed);
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
