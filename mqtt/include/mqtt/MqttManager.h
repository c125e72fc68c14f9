#pragma once
// The one object that owns the MQTT session and everything around it: the
// connection state, start and stop, topics, the connection and its
// callbacks, publishing, inbound dispatch, the registration thread, healing
// and the duplicate command filter. Its operations are implemented in one
// file per concern (see the .cpp files of this folder).

#include "config/mqttConfig.h"
#include "mqtt/MqttClient.h"
#include "mqtt/MqttLmMonConsumer.h"
#include "mqtt/MqttState.h"
#include "mqtt/SerialExecutor.h"
#include "mqtt/Topics.h"
#include "services/DuplicateMessageHandler.h"

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>
#include <mfw/corethread.h>
#include <platform/FileCreationWaiter.h>

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

namespace ndpx {

class pairingConfig;

// What a connection needs from pairing.
struct ConnectionMaterial {
    std::string endpointUrl;
    std::string clientId;
    std::string bootstrapTopic;
    std::string caCertPem;
    std::string clientCertPem;
    std::string privateKeyPem;
    std::string rootCaPem;  // the machine's trusted roots, appended to the trust store
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

// Result codes of the last connection attempt per endpoint.
enum EndpointResult : int { kEndpointConnected = 0, kEndpointFailed = 1, kEndpointTlsFailed = 3 };

// What the manager needs from outside; tests pass their own.
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
    // Connection material from the pairing data; nullopt when there is none.
    std::function<std::optional<ConnectionMaterial>()> connectionMaterial;
    // Handlers of the template and credentials-token topics (set by the
    // services that own them).
    std::function<void(const Json::Value&)> templateHandler;
    std::function<void(const Json::Value&)> otpTokenHandler;
    // "MigrateToCorvid": the migration manager's answer.
    std::function<bool(CORE::PropertyBag&, CORE::PropertyBag&)> migrationHandler;
    // Enrichment of a session report before it is published, and of the
    // answer to a successful "StartSession".
    std::function<void(CORE::PropertyBag&)> sessionReportTransform;
    std::function<void(CORE::PropertyBag&)> startSessionEnricher;
    // Is the current (or else the pending) client certificate present, valid
    // and issued to the agent identity? Healing goes back to requiring a new
    // pairing when it is not.
    std::function<bool()> clientCertificateUsable;
    // Sends the one-time-password request; true and the answer body when the
    // exchange itself worked.
    std::function<bool(const OtpRequest&, std::string& response)> otpRequester;
};

// The production wiring: pairing data and certificates from the machine's
// stores, the HTTPS client, the certificate checks.
MqttManagerDependencies defaultDependencies();

class MqttManager : private MqttClientListener {
public:
    static MqttManager& GetInstance();

    explicit MqttManager(MqttManagerDependencies deps = {});
    ~MqttManager() override;
    MqttManager(const MqttManager&) = delete;
    MqttManager& operator=(const MqttManager&) = delete;

    virtual bool Start();
    virtual bool Stop();

    // State.
    void SetState(std::int32_t state);
    std::int32_t GetState() const;
    std::string GetStateName() const;
    int RetrieveRootFolderPath(std::string& path);

    // Topics.
    bool ConfigureTopicNames();
    void SubscribeToTopics();
    virtual void UnsubscribeToTopic(const std::string& topic);
    void SubscribeToIPCTopic(const std::string& topic);
    unsigned subscribedMask() const { return subscribedMask_.load(); }
    SubscribeTopics subscribeTopics() const;
    PublishTopics publishTopics() const;

    // Connection.
    int Connect();
    bool IsConnected();
    bool Disconnect(std::uint32_t timeoutMs);
    void TearDownConnection();

    // Publishing.
    bool DoPublishMessage(const std::string& topic, const std::string& payload, int& token, int qos,
                          bool retained, MqttClient::SuccessFn onSuccess = nullptr);
    bool PublishMessage(const std::string& topic, const Json::Value& json, bool reliable,
                        MqttClient::SuccessFn onSuccess = nullptr);
    // detailKind: 0 none, 1 error ("errMsg"), 2 device ("deviceId").
    void BuildStatusMessage(Json::Value& out, const std::string& status, int detailKind,
                            const std::string& detail);
    bool PublishDesktopStatus(const std::string& status, int qos, int detailKind = 0,
                              const std::string& detail = {});
    bool PublishDesktopNotification(const CORE::PropertyBag& bag);
    bool SendSessionReport(const CORE::PropertyBag& bag);
    bool PublishSessionMessage(const CORE::PropertyBag& bag);
    virtual bool PublishEvent(const CORE::PropertyBag& bag);
    bool PublishIPCMessage(const std::string& topic, const std::string& payload);

    // Inbound dispatch.
    void OnMessage(const std::string& topic, const std::string& payload);
    void ProcessBootstrapMessage(const Json::Value& root);
    void ProcessSessionReportConfigMessage(const Json::Value& config);
    void ProcessCommandMessage(Json::Value root);
    static void onAsyncMsgComplete(void* context, const std::wstring& id, int responseType,
                                   CORE::PropertyBag& response);
    std::size_t pendingCommandCount() const;

    // Service operations that answer through a bag.
    bool GetEndpointProperties(CORE::PropertyBag& request, CORE::PropertyBag& response);
    bool UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response);
    bool MigrateToCorvid(CORE::PropertyBag& request, CORE::PropertyBag& response);

    // Healing and endpoint change (docs/healing.md).
    bool HandleUpdateEndpointRetries(bool tlsFailure);
    bool StartHealingThread(const std::string& reason);
    void StartTearDownThread(bool reconnect);
    bool PerformReconnect();

    // Registration (RegistrationThread.cpp, RegistrationSteps.cpp).
    bool WaitForFFCustomization();
    bool WaitForLCMGeneratedSpec();
    bool WaitForLCMFileCreation();
    bool ParseLCMSpec();
    virtual bool RegisterMessageTransport();
    bool ReadAndValidatePairingData();
    bool CreateAgentKeyPair();
    bool RequestCredentials();
    bool MakeOTPRequest(const std::string& vmId, const std::string& csrBase64,
                        std::string& response);
    bool StorePairingData();
    bool MarkPairedState();
    bool StartIPCServer();
    bool HandleActiveRetries();
    bool HandlePendingRetries();
    void RevertToRequireBootstrap(bool forgetPairingData);
    void UpdateIDs();
    void requestReboot() { rebootRequested_ = true; }
    bool registrationCompleted() const { return registrationCompleted_.load(); }
    const std::string& lastFailureReason() const { return failureReason_; }
    void setPairedStateKnown(bool known) { pairedStateKnown_ = known; }
    void setPaired(bool paired) { pairedFlag_ = paired; }
    void setNeedId(bool needId) { needIdFlag_ = needId; }

    bool isStarted() const { return started_.load(); }
    bool isStopping() const { return shutdownEvent_.isSet(); }
    CORE::coreevent& shutdownEvent() { return shutdownEvent_; }
    DuplicateMessageHandler& duplicateFilter() { return *duplicates_; }
    MqttLmMonConsumer& metricsConsumer() { return metrics_; }
    std::shared_ptr<mqttConfig> config() const;
    std::string connectionGuid() const;
    int lastEndpointResult(const std::string& endpoint) const;
    std::string currentEndpoint() const;
    // Publications the library failed after a session was lost (see docs).
    std::uint64_t failedPublications() const { return failedPublications_.load(); }

protected:
    void StartAgentRegistrationThread();
    virtual void RegistrationThreadProc();
    void StopHealingThread();
    void StopTearDownThread();

    // Connection callbacks (spec names), reached through the listener.
    void OnConnectionSuccess(bool withResponseData);
    void OnConnectionFailure(const MqttFailure& failure);
    void OnConnectionLost(const std::string& cause);
    void OnReconnected();
    void OnDisconnectSuccess();
    void OnDisconnectFailure(const MqttFailure& failure);
    void OnDisconnectReceived(int reasonCode);
    int OnSslError(const std::string& text);
    void OnSubscribeSuccess(int index);
    void OnSubscribeFailure(int index, const MqttFailure& failure);
    void OnPublishFailure(const MqttFailure& failure);
    void OnDeliveryComplete(int token);

private:
    // MqttClientListener: library threads; everything slow is handed off.
    void onConnectionLost(const std::string& cause) override;
    void onMessageArrived(std::string topic, std::string payload) override;
    void onDeliveryComplete(int token) override;
    void onConnected(const std::string& cause) override;
    void onDisconnectReceived(int reasonCode) override;
    void onConnectSuccess() override;
    void onConnectFailure(const MqttFailure& failure) override;
    void onDisconnectSuccess() override;
    void onDisconnectFailure(const MqttFailure& failure) override;
    void onSslError(const std::string& text) override;

    void ResetRunData();
    void recordEndpointResult(int result);
    void postConnectWork();
    // Writes the PEM files the library reads (names from tlsFile()).
    bool writeTlsMaterial(const ConnectionMaterial& material, MqttConnectOptions& options);
    void applyNoDelay();
    void HealConnection(const std::string& reason);
    bool waitBeforeReconnect();

    MqttManagerDependencies deps_;

    mutable std::mutex stateLock_;
    std::int32_t state_ = MQTT_STATE_UNKNOWN;
    std::atomic<bool> started_{false};
    CORE::coreevent shutdownEvent_;
    CORE::corethread registrationThread_;
    std::mutex registrationStartLock_;

    std::unique_ptr<DuplicateMessageHandler> duplicates_;
    MqttLmMonConsumer metrics_;

    // Topics (copied out under the lock).
    mutable std::mutex topicsLock_;
    SubscribeTopics subscribeTopics_;
    SubscribeTopics pendingTopics_;
    PublishTopics publishTopics_;
    std::atomic<unsigned> subscribedMask_{0};

    // Connection.
    std::shared_mutex clientLock_;
    std::unique_ptr<MqttClient> client_;
    std::string persistenceFolder_;
    mutable std::mutex connectionLock_;  // guid, endpoints and their results
    std::string connectionGuid_;
    std::string currentEndpoint_;
    std::string lastAttemptEndpoint_;
    std::map<std::string, int> endpointStatus_;
    std::string brokerHost_;
    int brokerPort_ = 0;
    CORE::coreevent disconnectEvent_;
    std::atomic<bool> endpointOnly_{false};
    std::atomic<int> consecutiveTlsFailures_{0};
    std::atomic<std::uint64_t> failedPublications_{0};

    // Endpoint change in progress (docs/healing.md).
    std::mutex endpointChangeLock_;
    std::string previousEndpoint_;
    int endpointAttemptsLeft_ = 0;

    // Inbound work and post-connect work, off the library's threads.
    SerialExecutor executor_{"MqttDispatch"};
    struct PendingCommand {
        std::wstring command;
        Json::Value metadata;
    };
    mutable std::mutex pendingLock_;
    std::map<std::wstring, PendingCommand> pendingCommands_;

    // Healing and tear-down tasks.
    std::mutex healingLock_;
    CORE::corethread healingThread_;
    std::atomic<bool> healingDone_{true};
    std::mutex tearDownLock_;
    CORE::corethread tearDownThread_;
    std::atomic<bool> tearDownDone_{true};

    // Registration flow.
    std::mutex registrationMutex_;
    platform::FileCreationWaiter fileWaiter_;
    std::atomic<bool> needBootstrap_{false};
    std::atomic<bool> parseLcmSpec_{false};
    std::atomic<bool> sameIdentity_{false};
    std::atomic<bool> registrationCompleted_{false};
    std::atomic<bool> rebootRequested_{false};
    std::atomic<bool> transportRegistered_{false};
    unsigned activeRetries_ = 0;
    unsigned pendingRetries_ = 0;
    unsigned maxCachedRetries_ = 3;
    std::string keyContainer_;
    std::vector<std::uint8_t> keyBlob_;
    std::string failureReason_;
    // The credentials answer, parsed in step 5 and stored in step 6.
    std::shared_ptr<mqttConfig> pairingConfigOwner_;
    std::unique_ptr<pairingConfig> pendingPairing_;

    std::atomic<bool> pairedFlag_{false};
    std::atomic<bool> needIdFlag_{false};
    std::atomic<bool> pairedStateKnown_{false};
    std::string publicKey_;  // base64, published with "AVAILABLE"
};

}  // namespace ndpx
