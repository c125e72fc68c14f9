#pragma once
// Healing, tear-down and endpoint change (see docs/healing.md): two tasks
// that tear the client down and connect again off the library's threads, the
// count of TLS failures that starts healing, and the endpoint change under
// way. Reconnects and tear-downs run only on these tasks.

#include <mfw/TaskThread.h>

#include <mfw/PropertyBag.h>
#include <mfw/corelock.h>

#include <atomic>
#include <string>

namespace ndpx {

class MqttManager;

class Healing {
public:
    explicit Healing(MqttManager& manager) : manager_(manager) {}

    // Start: tasks may be asked for again.
    void reopen();

    // A failed connection attempt (`tlsFailure`: at TLS). True when an
    // endpoint change was under way (and took the attempt).
    bool HandleUpdateEndpointRetries(bool tlsFailure);
    // True when healing runs (started now or already running).
    bool StartHealingThread(const std::string& reason);
    void StartTearDownThread(bool reconnect);
    // Tears the client down and connects again at once, with the stored
    // material (after a certificate swap).
    void ReconnectNow();
    // Wait for the running task; no new task starts until reopen().
    void StopHealingThread();
    void StopTearDownThread();
    // Tears the connection down and connects again with the stored material.
    bool PerformReconnect();

    bool UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response);
    // A connection succeeded: an endpoint change under way is complete and
    // the TLS failures are forgotten.
    void connected();

private:
    void HealConnection(const std::string& reason);
    bool waitBeforeReconnect();

    MqttManager& manager_;
    CORE::TaskThread healing_{"MqttHealing"};
    CORE::TaskThread tearDown_{"MqttTearDown"};
    std::atomic<int> consecutiveTlsFailures_{0};

    CORE::Mutex changeLock_;
    std::string previousEndpoint_ MFW_GUARDED_BY(changeLock_);  // empty: no change under way
    int attemptsLeft_ MFW_GUARDED_BY(changeLock_) = 0;
};

}  // namespace ndpx
