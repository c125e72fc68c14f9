// Healing, tear-down and endpoint change. See docs/healing.md for the design.

#include "config/EndpointUrl.h"
#include "mqtt/MqttManager.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>

namespace ndpx {
namespace {

// Consecutive TLS failures (with no endpoint change under way) before the
// connection is torn down and rebuilt from the stored material.
constexpr int kTlsFailuresBeforeHealing = 3;
constexpr int kErrorInvalidParameter = 87;

}  // namespace

bool MqttManager::waitBeforeReconnect() {
    const int seconds = config()->getReconnectIntervalMin();
    return !shutdownEvent_.wait(std::chrono::seconds(seconds));
}

bool MqttManager::PerformReconnect() {
    MFW_LOG(CORE::kLogInfo, "MqttManager::PerformReconnect(): Reconnecting to %s",
            currentEndpoint().c_str());
    TearDownConnection();
    if (isStopping()) {
        return false;
    }
    return Connect() == 1;
}

void MqttManager::StartTearDownThread(bool reconnect) {
    std::lock_guard lock(tearDownLock_);
    if (!tearDownDone_) {
        return;  // one tear-down at a time; the running one reconnects too
    }
    tearDownThread_.join();
    tearDownDone_ = false;
    const bool started = tearDownThread_.start("MqttTearDown", [this, reconnect] {
        if (reconnect) {
            if (waitBeforeReconnect()) {
                PerformReconnect();
            }
        } else {
            TearDownConnection();
        }
        tearDownDone_ = true;
    });
    if (!started) {
        tearDownDone_ = true;
    }
}

void MqttManager::StopTearDownThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopTearDownThread(): Stopping the tear down thread.");
    std::lock_guard lock(tearDownLock_);
    tearDownThread_.join();
}

bool MqttManager::StartHealingThread(const std::string& reason) {
    std::lock_guard lock(healingLock_);
    if (!healingDone_) {
        return true;  // already healing
    }
    healingThread_.join();
    healingDone_ = false;
    const bool started = healingThread_.start("MqttHealing", [this, reason] {
        HealConnection(reason);
        healingDone_ = true;
    });
    if (!started) {
        healingDone_ = true;
    }
    return started;
}

void MqttManager::StopHealingThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopHealingThread(): Stopping the healing thread.");
    std::lock_guard lock(healingLock_);
    if (healingThread_.joinable()) {
        healingThread_.join();
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::StopHealingThread(): Finished waiting for the healing thread.");
    }
}

void MqttManager::HealConnection(const std::string& reason) {
    MFW_LOG(CORE::kLogInfo, "MqttManager::HealConnection(): Healing the connection: %s",
            reason.c_str());
    PublishDesktopStatus("UNAVAILABLE", 0, 1, reason);
    metrics_.ReportError("Healing connection: " + reason);
    TearDownConnection();
    if (!waitBeforeReconnect()) {
        return;
    }
    if (deps_.clientCertificateUsable && !deps_.clientCertificateUsable()) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::HealConnection(): The client certificate cannot be used or renewed; "
                "a new pairing is required.");
        failureReason_ = "Client certificate unusable. Bootstrap needed";
        RevertToRequireBootstrap(false);
        return;
    }
    if (Connect() != 1) {
        MFW_LOG(CORE::kLogWarning, "MqttManager::HealConnection(): Reconnect failed to start");
    }
}

bool MqttManager::HandleUpdateEndpointRetries(bool tlsFailure) {
    std::string revertTo;
    bool changeUnderWay = false;
    {
        std::lock_guard lock(endpointChangeLock_);
        changeUnderWay = !previousEndpoint_.empty();
    }
    if (!changeUnderWay) {
        if (tlsFailure && ++consecutiveTlsFailures_ >= kTlsFailuresBeforeHealing) {
            consecutiveTlsFailures_ = 0;
            StartHealingThread("repeated TLS failures");
        }
        return false;
    }
    {
        std::lock_guard lock(endpointChangeLock_);
        if (--endpointAttemptsLeft_ > 0) {
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::HandleUpdateEndpointRetries(): Connection to new endpoint %s "
                    "failed, %d attempt(s) left",
                    currentEndpoint().c_str(), endpointAttemptsLeft_);
        } else {
            revertTo = previousEndpoint_;
            previousEndpoint_.clear();
            endpointAttemptsLeft_ = 0;
        }
    }
    if (!revertTo.empty()) {
        MFW_LOG(
            CORE::kLogWarning,
            "MqttManager::HandleUpdateEndpointRetries(): New endpoint %s unreachable, reverting "
            "to %s",
            currentEndpoint().c_str(), revertTo.c_str());
        config()->store().set(kNodeManagerKey, "mqtt_EndpointUrl",
                              platform::SettingValue::ofString(revertTo));
    }
    // The library does not retry a first connection itself: the tear-down
    // task does, after the minimum reconnect interval.
    StartTearDownThread(true);
    return true;
}

bool MqttManager::UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response) {
    const std::string endpoint = CORE::toUtf8(request.get(L"ENDPOINT", L""));
    const auto parsed = parseEndpointUrl(endpoint);
    if (!parsed) {
        MFW_LOG(CORE::kLogError, "MqttManager::UpdateEndpointURL(): Invalid endpoint '%s'",
                endpoint.c_str());
        CORE::serviceOperation::setReplyError(response, kErrorInvalidParameter,
                                              L"ENDPOINT must be scheme://host:port");
        return false;
    }
    const std::string current = currentEndpoint();
    if (endpoint == current) {
        endpointOnly_ = true;
        response.set(L"RESULT", L"UNCHANGED");
        return true;
    }
    const int attempts = config()->getEndpointChangeAttempts();
    {
        std::lock_guard lock(endpointChangeLock_);
        previousEndpoint_ = current;
        endpointAttemptsLeft_ = attempts;
    }
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::UpdateEndpointURL(): Changing endpoint from %s to %s (%d attempts)",
            current.c_str(), endpoint.c_str(), attempts);
    config()->store().set(kNodeManagerKey, "mqtt_EndpointUrl",
                          platform::SettingValue::ofString(endpoint));
    std::string hostPort = endpoint.substr(endpoint.find("://") + 3);
    config()->setMonitoringEndpoint(hostPort.substr(0, hostPort.find('/')));
    StartTearDownThread(true);
    response.set(L"RESULT", L"PENDING");
    return true;
}

bool MqttManager::GetEndpointProperties(CORE::PropertyBag&, CORE::PropertyBag& response) {
    CORE::PropertyBag global;
    std::string current;
    std::string lastAttempt;
    int lastResult = -1;
    {
        std::lock_guard lock(connectionLock_);
        current = currentEndpoint_;
        lastAttempt = lastAttemptEndpoint_;
        auto it = endpointStatus_.find(lastAttempt);
        lastResult = it == endpointStatus_.end() ? -1 : it->second;
    }
    global.set(L"currentEndpoint", CORE::toWide(current));
    global.set(L"lastAttemptEndpoint", CORE::toWide(lastAttempt));
    global.setInt(L"lastAttemptEndpointError", lastResult);
    CORE::PropertyBag edge;
    edge.set(L"endpoint", CORE::toWide(config()->getMonitoringEndpoint()));
    CORE::PropertyBag mqtt;
    mqtt.setBag(L"global", global);
    mqtt.setBag(L"edge", edge);
    response.setBag(L"mqtt", mqtt);
    return true;
}

bool MqttManager::MigrateToCorvid(CORE::PropertyBag& request, CORE::PropertyBag& response) {
    if (deps_.migrationHandler) {
        return deps_.migrationHandler(request, response);
    }
    MFW_LOG(CORE::kLogWarning, "MqttManager::MigrateToCorvid(): No migration manager available");
    CORE::serviceOperation::setReplyError(response, CORE::kErrorNotImplemented,
                                          L"migration is not available");
    return false;
}

}  // namespace ndpx
