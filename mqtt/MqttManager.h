#pragma once
// The one object that owns the MQTT session and everything around it: the
// connection state, start and stop, the root folder, the registration thread,
// publishing and the duplicate command filter.

#include "config/mqttConfig.h"
#include "mqtt/MqttClient.h"
#include "mqtt/MqttLmMonConsumer.h"
#include "mqtt/MqttState.h"
#include "services/DuplicateMessageHandler.h"

#include <mfw/coreevent.h>
#include <mfw/corethread.h>

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

namespace ndpx {

// What the manager needs from outside; tests pass their own.
struct MqttManagerDependencies {
    platform::TimeSource* time = &platform::TimeSource::real();
    // The configuration in force; by default the process's loaded one.
    std::function<std::shared_ptr<mqttConfig>()> config;
};

class MqttManager {
public:
    static MqttManager& GetInstance();

    explicit MqttManager(MqttManagerDependencies deps = {});
    virtual ~MqttManager();
    MqttManager(const MqttManager&) = delete;
    MqttManager& operator=(const MqttManager&) = delete;

    virtual bool Start();
    virtual bool Stop();

    void SetState(std::int32_t state);
    std::int32_t GetState() const;
    std::string GetStateName() const;

    int RetrieveRootFolderPath(std::string& path);

    // Publishing.
    bool DoPublishMessage(const std::string& topic, const std::string& payload, int& token, int qos,
                          bool retained);
    bool PublishMessage(const std::string& topic, const Json::Value& json, bool reliable);
    // detailKind: 0 none, 1 error ("errMsg"), 2 device ("deviceId").
    void BuildStatusMessage(Json::Value& out, const std::string& status, int detailKind,
                            const std::string& detail);
    bool PublishDesktopStatus(const std::string& status, int qos);

    bool isStarted() const { return started_.load(); }
    bool isStopping() const { return shutdownEvent_.isSet(); }
    CORE::coreevent& shutdownEvent() { return shutdownEvent_; }
    DuplicateMessageHandler& duplicateFilter() { return *duplicates_; }
    MqttLmMonConsumer& metricsConsumer() { return metrics_; }
    std::shared_ptr<mqttConfig> config() const;
    const std::string& connectionGuid() const { return connectionGuid_; }

protected:
    void StartAgentRegistrationThread();
    virtual void RegistrationThreadProc();
    void StopHealingThread();
    void StopTearDownThread();
    void TearDownConnection();
    bool Disconnect(std::uint32_t timeoutMs);

private:
    void ResetRunData();

    MqttManagerDependencies deps_;

    mutable std::mutex stateLock_;
    std::int32_t state_ = MQTT_STATE_UNKNOWN;
    std::atomic<bool> started_{false};
    CORE::coreevent shutdownEvent_;
    CORE::corethread registrationThread_;
    std::mutex registrationStartLock_;

    // The healing and tear-down tasks (see docs/architecture.md).
    std::mutex healingLock_;
    std::mutex tearDownLock_;

    std::unique_ptr<DuplicateMessageHandler> duplicates_;
    MqttLmMonConsumer metrics_;

    std::shared_mutex clientLock_;
    std::unique_ptr<MqttClient> client_;

    std::atomic<bool> pairedFlag_{false};
    std::atomic<bool> needIdFlag_{false};
    std::atomic<bool> pairedStateKnown_{false};
    std::string connectionGuid_;
    std::string publicKey_;  // base64, published with "AVAILABLE"
    std::string desktopStatusTopic_;
};

}  // namespace ndpx
