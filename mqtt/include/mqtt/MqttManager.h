#pragma once
// The one object that owns the MQTT session and everything around it. It
// keeps the connection state, starts and stops, names the topics, publishes,
// dispatches inbound messages on its executor, and owns the duplicate
// command filter. Three collaborators do the rest: the connection (the
// client's lifetime and its lock), registration (the pairing chain), and
// healing with the endpoint change. The operations other parts of the agent
// call stay here, by their names, as thin entry points.
//
// Threads and locks: docs/architecture.md, "Threading contract".

#include "certs/CertMonitor.h"
#include "events/EventLogger.h"
#include "ipc/IPCManager.h"
#include "mqtt/ConnectionInfo.h"
#include "mqtt/Healing.h"
#include "mqtt/ManagerDependencies.h"
#include "mqtt/MqttConnection.h"
#include "mqtt/MqttLmMonConsumer.h"
#include "mqtt/MqttState.h"
#include "mqtt/Registration.h"
#include "mqtt/SessionContinuity.h"
#include "mqtt/SessionCounters.h"
#include "mqtt/Topics.h"
#include "reports/AsyncReportGenerator.h"
#include "services/AnsweredCommandLog.h"
#include "services/DuplicateMessageHandler.h"
#include "services/SerialExecutor.h"
#include "templates/TemplateHandler.h"

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>
#include <mfw/corelock.h>
#include <mfw/corethread.h>

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace ndpx {

class MqttManager : private MqttClientListener,
                    private certs::CertMonitorHost,
                    private TemplateHost,
                    private IpcMqttSide {
public:
    static MqttManager& GetInstance();
    // Destroys the process's manager, whose threads (the duplicate filter's
    // timer among them) then end: called at PluginExit, after Stop, so that
    // none outlives the module.
    static void ReleaseInstance();

    explicit MqttManager(MqttManagerDependencies deps = {});
    ~MqttManager() override;
    MqttManager(const MqttManager&) = delete;
    MqttManager& operator=(const MqttManager&) = delete;

    virtual bool Start();
    virtual bool Stop();
    bool IsStarted() const { return started_.load(); }

    // State.
    void SetState(std::int32_t state);
    std::int32_t GetState() const;
    std::string GetStateName() const;
    int RetrieveRootFolderPath(std::string& path);

    // Topics.
    bool ConfigureTopicNames();
    // The topics the stored identity and pairing name.
    std::pair<SubscribeTopics, PublishTopics> topicsFromConfig();
    void SubscribeToTopics();
    virtual void UnsubscribeToTopic(const std::string& topic);
    void SubscribeToIPCTopic(const std::string& topic);
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
    // The event entry ("SendEvent"): records the event with the event
    // logger, then publishes it whatever the recording gave.
    virtual bool PublishEvent(const CORE::PropertyBag& bag);
    bool PublishIPCMessage(const std::string& topic, const std::string& payload, int qos,
                           bool retained);

    // Inbound dispatch.
    void OnMessage(const std::string& topic, const std::string& payload);
    void ProcessBootstrapMessage(const Json::Value& root);
    void ProcessSessionReportConfigMessage(const Json::Value& config);
    void ProcessCommandMessage(Json::Value root);
    static void onAsyncMsgComplete(void* context, const std::wstring& id, int responseType,
                                   CORE::PropertyBag& response);

    // Service operations that answer through a bag.
    bool GetEndpointProperties(CORE::PropertyBag& request, CORE::PropertyBag& response);
    bool UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response);

    // Healing and endpoint change (docs/healing.md).
    bool HandleUpdateEndpointRetries(bool tlsFailure);
    bool StartHealingThread(const std::string& reason);
    void StartTearDownThread(bool reconnect);
    bool PerformReconnect();

    // Registration. RegisterMessageTransport is the chain's step 2, virtual
    // so that a derived manager may replace it; it runs under the
    // registration mutex.
    virtual bool RegisterMessageTransport();
    // The migration's commit: makes MQTT the agent's message transport,
    // replacing the older one, under the registration mutex (the chain may
    // be running).
    bool CommitMessageTransport();
    // A migration's bootstrap was written while the manager runs: the
    // registration thread stops waiting quiesced and looks for it at once.
    void WakeRegistration() { registration_.wakeQuiesced(); }
    // `reason` goes to the log line; empty keeps the last failure's.
    void RevertToRequireBootstrap(bool forgetPairingData, const std::string& reason = {});
    void UpdateIDs();
    bool StartIPCServer();
    void requestReboot() { requestSystemReboot(); }

    MqttLmMonConsumer& metricsConsumer() { return metrics_; }
    std::shared_ptr<mqttConfig> config() const;

protected:
    void StartAgentRegistrationThread() MFW_EXCLUDES(registrationThreadLock_);

    // Connection callbacks, on the executor.
    void OnConnectionSuccess(bool withResponseData);
    void OnConnectionFailure(const MqttFailure& failure);
    void OnConnectionLost(const std::string& cause);
    void OnReconnected();
    void OnDisconnectFailure(const MqttFailure& failure);
    void OnDisconnectReceived(int reasonCode);
    int OnSslError(const std::string& text);
    void OnSubscribeSuccess(int index);
    void OnSubscribeFailure(int index, const MqttFailure& failure);
    void OnPublishFailure(const MqttFailure& failure);
    void OnDeliveryComplete(int token);

private:
    friend class Registration;
    friend class Healing;
    friend class MqttManagerTestPeer;

    // MqttClientListener: reached through the connection's hand-off, so
    // these run on the executor, never on a library thread.
    void onConnectionLost(const std::string& cause) override;
    void onMessageArrived(std::string topic, std::string payload) override;
    void onDeliveryComplete(int token) override;
    void onConnected(const std::string& cause, bool sessionPresent) override;
    void onDisconnectReceived(int reasonCode) override;
    void onConnectSuccess() override;
    void onConnectFailure(const MqttFailure& failure) override;
    void onDisconnectSuccess() override {}  // taken by the connection itself
    void onDisconnectFailure(const MqttFailure& failure) override;
    void onSslError(const std::string& text) override;

    // certs::CertMonitorHost: what the certificate monitor needs (RenewalHost.cpp).
    bool publishCredentialsRequest(const Json::Value& request) override;
    bool requestCredentials(const std::string& url, const std::string& vmId, const std::string& otp,
                            const std::string& csrBase64, std::string& response,
                            CORE::coreevent& abort) override;
    bool brokerAccepts(const std::string& certPem, const std::string& keyPem,
                       CORE::coreevent& abort) override;
    CORE::Mutex& pairingLock() override;
    void certificateSwapped() override;

    // TemplateHost: what the template handler needs (TemplateWiring.cpp).
    void publishTemplateStatus(const std::string& status, int detailKind,
                               const std::string& detail) override;
    void requestSystemReboot() override;
    void updateIDs(const std::string& edgeId, const std::string& shortTemplateId) override;

    // IpcMqttSide: what the IPC bridge needs (IpcWiring.cpp).
    void subscribeIpcTopic(const std::string& topic) override;
    void unsubscribeIpcTopic(const std::string& topic) override;
    bool publishIpcMessage(const std::string& topic, const std::string& payload, int qos,
                           bool retain) override;
    // The bridge's part of the post-connect work: its server, its topics,
    // and the identity told again when it changed.
    void renewIpcSession();

    // The state as the session's own threads move it: once Stop has begun
    // they leave STOPPING alone.
    void setRunState(std::int32_t state);
    void changeState(std::int32_t state, bool unlessStopping) MFW_EXCLUDES(stateLock_);
    bool isStopping() const { return shutdownEvent_.isSet(); }
    CORE::coreevent& shutdownEvent() { return shutdownEvent_; }
    std::string currentEndpoint() const { return info_.currentEndpoint(); }
    void ResetRunData();
    // The current (or pending) client certificate can be used; the
    // certificate monitor answers unless a test gave its own answer.
    bool clientCertificateUsable(bool pairingLockHeld);
    // The client certificate's time left and last renewal, for the metric.
    Json::Value certificateMetric();
    // The metric's figures beside the state (MetricDetails.cpp).
    Json::Value metricDetails();
    bool refusePublication();
    void postConnectWork();
    void classifyConnectFailure();
    // The connection material, and what Connect takes from it for later.
    std::optional<ConnectionMaterial> connectionMaterial();
    // Writes the PEM files the library reads (names from tlsFile()).
    bool writeTlsMaterial(const ConnectionMaterial& material, MqttConnectOptions& options);
    std::uint32_t disconnectTimeoutMs() const;
    void applyNoDelay();
    int sendToDesktopManager(const wchar_t* operation, const CORE::PropertyBag& request);
    std::string persistenceFolder() MFW_EXCLUDES(materialLock_);

    MqttManagerDependencies deps_;
    const std::shared_ptr<certs::CertificateUtil> certificates_;
    CORE::coreevent shutdownEvent_;
    // Its waits on the event writer end when the manager stops.
    EventLogger eventLogger_{shutdownEvent_};
    std::atomic<bool> started_{false};
    // From the first step of Stop: connection events no longer move the
    // state away from STOPPING.
    std::atomic<bool> stopRequested_{false};

    mutable CORE::Mutex stateLock_;
    std::int32_t state_ MFW_GUARDED_BY(stateLock_) = MQTT_STATE_UNKNOWN;

    std::unique_ptr<DuplicateMessageHandler> duplicates_;
    // The answered IDs the filter takes back after a restart.
    std::unique_ptr<AnsweredCommandLog> answered_;
    // Read once a process: later connections of the same process have the
    // IDs in the filter already.
    std::atomic<bool> answeredLoaded_{false};
    MqttLmMonConsumer metrics_;

    // Topics (copied out under the lock).
    mutable CORE::Mutex topicsLock_;
    SubscribeTopics subscribeTopics_ MFW_GUARDED_BY(topicsLock_);
    SubscribeTopics pendingTopics_ MFW_GUARDED_BY(topicsLock_);
    PublishTopics publishTopics_ MFW_GUARDED_BY(topicsLock_);
    std::atomic<unsigned> subscribedMask_{0};

    // What Connect took from the pairing data, for the status messages and
    // the desktop manager's settings.
    CORE::Mutex materialLock_;
    std::string persistenceFolder_ MFW_GUARDED_BY(materialLock_);
    std::string publicKey_ MFW_GUARDED_BY(materialLock_);  // base64 DER, sent with "AVAILABLE"
    std::string chainRootPem_ MFW_GUARDED_BY(materialLock_);

    ConnectionInfo info_;
    SessionContinuity session_{*deps_.time};
    std::atomic<bool> endpointOnly_{false};
    // Publications the library failed after taking them: lost in flight
    // (see docs).
    std::atomic<std::uint64_t> failedPublications_{0};
    // Handed to the client while it was not connected (it buffers them).
    std::atomic<std::uint64_t> bufferedPublications_{0};
    // Refused before reaching the client.
    std::atomic<std::uint64_t> droppedPublications_{0};
    SessionCounters counters_;

    // Commands handed to the desktop manager and not yet answered.
    struct PendingCommand {
        std::wstring command;
        Json::Value metadata;
        platform::TimeSource::SteadyTime receivedAt;
    };
    mutable CORE::Mutex pendingLock_;
    std::map<std::wstring, PendingCommand> pendingCommands_ MFW_GUARDED_BY(pendingLock_);

    std::atomic<bool> pairedFlag_{false};
    std::atomic<bool> needIdFlag_{false};
    std::atomic<bool> pairedStateKnown_{false};

    // The collaborators. The executor is declared after the connection, so
    // it stops (its queue drained) before the connection it serves goes.
    MqttConnection connection_;
    SerialExecutor executor_{"MqttDispatch"};
    Registration registration_;
    Healing healing_{*this};

    CORE::Mutex registrationThreadLock_;
    std::unique_ptr<CORE::corethread> registrationThread_ MFW_GUARDED_BY(registrationThreadLock_);

    // Declared last: their threads, which call into the rest, go first.
    std::unique_ptr<AsyncReportGenerator> reports_;
    std::unique_ptr<certs::CertMonitor> certMonitor_;
    std::unique_ptr<TemplateHandler> templates_;
    std::unique_ptr<IPCManager> ipc_;
    // The identity the bridge's clients were last told, on the executor.
    std::string ipcIdentity_;
};

}  // namespace ndpx
