#pragma once
// Watches for the desktop's Azure AD join, which happens by itself: answers
// whether the device is joined, and, started when it is not yet, polls for a
// bounded time ("mqtt_AzureADJoinQueryInterval", "mqtt_AzureADJoinMaxInterval")
// and publishes "AVAILABLE" with the device ID or "DOMAIN_ERR" with the last
// error.

#include "monitors/AadJoinQuery.h"
#include "monitors/StatusPublisher.h"

#include <platform/TimeSource.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace ndpx {

class mqttConfig;
class PollThread;

class AzureADMonitor {
public:
    using ConfigSource = std::function<std::shared_ptr<mqttConfig>()>;

    AzureADMonitor(std::unique_ptr<AadJoinQuery> query, ConfigSource config,
                   StatusPublisher publish,
                   platform::TimeSource& time = platform::TimeSource::real());
    ~AzureADMonitor();
    AzureADMonitor(const AzureADMonitor&) = delete;
    AzureADMonitor& operator=(const AzureADMonitor&) = delete;

    // False when the join state cannot be queried on this system.
    bool available() const { return available_; }

    // True with the device ID in `joinInfo` for a device join; otherwise
    // false with the reason in `error`.
    bool IsDeviceAzureADJoined(std::string& joinInfo, std::string& error);

    void Start();
    void Stop();

private:
    void AzureADMonitorThreadProc(const std::function<bool(std::chrono::milliseconds)>& stopped);

    const std::unique_ptr<AadJoinQuery> query_;
    const ConfigSource config_;
    const StatusPublisher publish_;
    const bool available_;
    const std::unique_ptr<PollThread> thread_;
};

}  // namespace ndpx
