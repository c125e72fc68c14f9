// Healing and tear-down tasks. See docs/healing.md for the design.

#include "mqtt/Healing.h"

#include "mqtt/MqttManager.h"

#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

// Consecutive TLS failures (with no endpoint change under way) before the
// connection is torn down and rebuilt from the stored material.
constexpr int kTlsFailuresBeforeHealing = 3;

}  // namespace

void Healing::reopen() {
    healing_.reopen();
    tearDown_.reopen();
}

bool Healing::waitBeforeReconnect() {
    const int seconds = manager_.config()->getReconnectIntervalMin();
    return !manager_.shutdownEvent().wait(std::chrono::seconds(seconds));
}

bool Healing::PerformReconnect() {
    MFW_LOG(CORE::kLogInfo, "MqttManager::PerformReconnect(): Reconnecting to %s",
            manager_.currentEndpoint().c_str());
    // Connect replaces the client in one step, leaving no moment without one.
    if (manager_.isStopping()) {
        return false;
    }
    return manager_.Connect() == 1;
}

void Healing::StartTearDownThread(bool reconnect) {
    // One tear-down at a time: a running one reconnects with the newest
    // stored material anyway.
    tearDown_.start([this, reconnect] {
        if (!reconnect) {
            manager_.TearDownConnection();
        } else if (waitBeforeReconnect()) {
            PerformReconnect();
        }
    });
}

void Healing::ReconnectNow() {
    if (tearDown_.start([this] { PerformReconnect(); }) == CORE::TaskThread::Started::Busy) {
        // A running tear-down reconnects with the newest material anyway.
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::ReconnectNow(): A tear-down runs already; it reconnects");
    }
}

void Healing::StopTearDownThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopTearDownThread(): Stopping the tear down thread.");
    tearDown_.close();
}

bool Healing::StartHealingThread(const std::string& reason) {
    switch (healing_.start([this, reason] { HealConnection(reason); })) {
        case CORE::TaskThread::Started::Yes:
        case CORE::TaskThread::Started::Busy:  // already healing
            return true;
        case CORE::TaskThread::Started::Closed:
        case CORE::TaskThread::Started::Failed:
            break;
    }
    return false;
}

void Healing::StopHealingThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopHealingThread(): Stopping the healing thread.");
    if (healing_.close()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::StopHealingThread(): Finished waiting for the healing thread.");
    }
}

void Healing::HealConnection(const std::string& reason) {
    MFW_LOG(CORE::kLogInfo, "MqttManager::HealConnection(): Healing the connection: %s",
            reason.c_str());
    manager_.PublishDesktopStatus("UNAVAILABLE", 0, 1, reason);
    manager_.metrics_.ReportError("Healing connection: " + reason);
    manager_.TearDownConnection();
    if (!waitBeforeReconnect()) {
        return;
    }
    if (!manager_.clientCertificateUsable(false)) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::HealConnection(): The client certificate cannot be used or renewed; "
                "a new pairing is required.");
        manager_.registration_.revertToRequireBootstrap(
            false, "Client certificate unusable. Bootstrap needed");
        return;
    }
    if (manager_.Connect() != 1) {
        MFW_LOG(CORE::kLogWarning, "MqttManager::HealConnection(): Reconnect failed to start");
    }
}

bool Healing::HandleUpdateEndpointRetries(bool tlsFailure) {
    std::string revertTo;
    {
        CORE::MutexLock lock(changeLock_);
        if (previousEndpoint_.empty()) {
            lock.unlock();
            if (tlsFailure && ++consecutiveTlsFailures_ >= kTlsFailuresBeforeHealing) {
                consecutiveTlsFailures_ = 0;
                StartHealingThread("repeated TLS failures");
            }
            return false;
        }
        if (--attemptsLeft_ > 0) {
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::HandleUpdateEndpointRetries(): Connection to new endpoint %s "
                    "failed, %d attempt(s) left",
                    manager_.currentEndpoint().c_str(), attemptsLeft_);
        } else {
            revertTo = std::exchange(previousEndpoint_, {});
            attemptsLeft_ = 0;
        }
    }
    if (!revertTo.empty()) {
        MFW_LOG(
            CORE::kLogWarning,
            "MqttManager::HandleUpdateEndpointRetries(): New endpoint %s unreachable, reverting "
            "to %s",
            manager_.currentEndpoint().c_str(), revertTo.c_str());
        manager_.config()->store().set(kNodeManagerKey, "mqtt_EndpointUrl",
                                       platform::SettingValue::ofString(revertTo));
    }
    // The library does not retry a first connection itself: the tear-down
    // task does, after the minimum reconnect interval.
    StartTearDownThread(true);
    return true;
}

void Healing::connected() {
    consecutiveTlsFailures_ = 0;
    CORE::MutexLock lock(changeLock_);
    previousEndpoint_.clear();
    attemptsLeft_ = 0;
}

}  // namespace ndpx
