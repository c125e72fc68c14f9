#include "monitors/AzureADMonitor.h"

#include "PollThread.h"

#include "config/mqttConfig.h"

#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

// The reason a query result is no device join, or empty for a device join
// with an ID.
std::string notJoinedReason(const AadJoinInfo& info) {
    if (info.failed) {
        return "NetGetAadJoinInformation failed, error : " + info.error;
    }
    switch (info.type) {
        case AadJoinType::None:
            return "Device isn't joined to Azure AD, error : " + info.error;
        case AadJoinType::Device:
            return info.deviceId.empty() ? "DeviceId was retrieved but it was empty" : "";
        case AadJoinType::Workplace:
            return "Unexpected join type (Workplace) found";
        case AadJoinType::Unknown:
            break;
    }
    return "Unexpected join type (Unknown) found";
}

}  // namespace

AzureADMonitor::AzureADMonitor(std::unique_ptr<AadJoinQuery> query, ConfigSource config,
                               StatusPublisher publish, platform::TimeSource& time)
    : query_(std::move(query)),
      config_(std::move(config)),
      publish_(std::move(publish)),
      available_(query_->available()),
      thread_(std::make_unique<PollThread>(time)) {}

AzureADMonitor::~AzureADMonitor() = default;

bool AzureADMonitor::IsDeviceAzureADJoined(std::string& joinInfo, std::string& error) {
    if (!available_) {
        error = "Azure AD join is unsupported on this device";
    } else {
        const AadJoinInfo info = query_->query();
        error = notJoinedReason(info);
        if (error.empty()) {
            MFW_LOG(CORE::kLogDebug,
                    "AzureADMonitor::IsDeviceAzureADJoined(): Machine is joined to Azure AD with "
                    "deviceId=%s",
                    info.deviceId.c_str());
            joinInfo = info.deviceId;
            return true;
        }
    }
    MFW_LOG(CORE::kLogWarning, "AzureADMonitor::IsDeviceAzureADJoined(): %s", error.c_str());
    return false;
}

void AzureADMonitor::Start() {
    if (!available_) {
        MFW_LOG(CORE::kLogError, "AzureADMonitor::Start(): Azure AD join status cannot be queried");
        return;
    }
    const auto started = thread_->start(
        "AzureADMonitor",
        [this](const PollThread::StopWait& stopped) { AzureADMonitorThreadProc(stopped); });
    if (started == PollThread::Start::AlreadyRunning) {
        MFW_LOG(CORE::kLogDebug, "AzureADMonitor::Start(): Thread is already running.");
    } else if (started == PollThread::Start::Failed) {
        MFW_LOG(CORE::kLogError, "AzureADMonitor::Start(): Unable to start the poll thread");
    }
}

void AzureADMonitor::Stop() {
    if (thread_->stop(false)) {
        MFW_LOG(CORE::kLogDebug, "AzureADMonitor::Stop(): AzureADMonitor has been stopped");
    } else {
        MFW_LOG(CORE::kLogDebug, "AzureADMonitor::Stop(): Thread is not running");
    }
}

void AzureADMonitor::AzureADMonitorThreadProc(
    const std::function<bool(std::chrono::milliseconds)>& stopped) {
    const std::shared_ptr<mqttConfig> config = config_();
    const int maximum = config->getAzureADJoinMaxInterval();
    const int interval = config->getAzureADJoinQueryInterval();
    MFW_LOG(CORE::kLogDebug,
            "AzureADMonitor::AzureADMonitorThreadProc(): Will query Azure AD Join status every %d "
            "seconds, with max wait interval of %d seconds",
            interval, maximum);
    // Whole attempts only: 90 s at 60 s a query is one attempt.
    for (int attempts = maximum / interval; attempts > 0; --attempts) {
        if (stopped(std::chrono::seconds(interval))) {
            break;
        }
        MFW_LOG(CORE::kLogVerbose,
                "AzureADMonitor::AzureADMonitorThreadProc(): Attempt num=%d to check Azure AD "
                "join status",
                attempts);
        std::string joinInfo;
        std::string error;
        if (IsDeviceAzureADJoined(joinInfo, error)) {
            publish_("AVAILABLE", kStatusDetailDeviceId, joinInfo);
            break;
        }
        if (attempts == 1) {
            MFW_LOG(CORE::kLogError,
                    "AzureADMonitor::AzureADMonitorThreadProc(): Exhausted all attempts to check "
                    "Azure AD join status");
            publish_("DOMAIN_ERR", kStatusDetailError, error);
        }
    }
    MFW_LOG(CORE::kLogVerbose, "AzureADMonitor::AzureADMonitorThreadProc(): Exiting thread");
}

}  // namespace ndpx
