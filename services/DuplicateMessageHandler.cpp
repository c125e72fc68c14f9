#include "services/DuplicateMessageHandler.h"

#include <mfw/corethread.h>
#include <mfw/moduleLog.h>

namespace ndpx {
namespace {
constexpr std::int64_t kTicksPerSecond = 10'000'000;
}

DuplicateMessageHandler::DuplicateMessageHandler(std::int64_t retentionSeconds,
                                                 std::uint32_t timerPeriodMs,
                                                 ndpx::platform::TimeSource& time)
    // The timer's thread is one of the module's: PluginExit waits for it.
    : CORE::coretimer(time, CORE::corethread::factory(), "DuplicateFilter"),
      retention_(retentionSeconds),
      time_(time) {
    if (retention_ == 0) {
        enabled_ = false;
        return;
    }
    start(timerPeriodMs);
}

DuplicateMessageHandler::~DuplicateMessageHandler() {
    stop();
}

bool DuplicateMessageHandler::IsDuplicate(const std::wstring& id) {
    std::lock_guard lock(mutex_);
    return timeMap_.count(id) != 0;
}

void DuplicateMessageHandler::Record(const std::wstring& id) {
    if (!enabled_) {
        return;
    }
    std::lock_guard lock(mutex_);
    timeMap_[id] = platform::toFileTimeTicks(time_.systemNow());
}

void DuplicateMessageHandler::Clear() {
    if (!enabled_) {
        return;
    }
    std::lock_guard lock(mutex_);
    timeMap_.clear();
}

void DuplicateMessageHandler::SetConnected(bool connected) {
    if (!enabled_) {
        return;
    }
    connected_.exchange(connected);
    if (!connected) {
        refreshPending_.exchange(true);
    }
}

std::size_t DuplicateMessageHandler::size() {
    std::lock_guard lock(mutex_);
    return timeMap_.size();
}

bool DuplicateMessageHandler::TimerCallback() {
    if (!connected_.load()) {
        MFW_LOG(CORE::kLogVerbose,
                "DuplicateMessageHandler::TimerCallback(): Not updating time map since MQTT is "
                "disconnected");
        return true;
    }
    const std::int64_t now = platform::toFileTimeTicks(time_.systemNow());
    std::lock_guard lock(mutex_);
    if (refreshPending_.load() && connected_.load()) {
        // Commands seen before the outage may be redelivered now: give every
        // ID a full retention period from here.
        MFW_LOG(CORE::kLogVerbose,
                "DuplicateMessageHandler::TimerCallback(): Refreshing time map since MQTT is "
                "reconnected");
        for (auto& [id, stamp] : timeMap_) {
            stamp = now;
        }
        refreshPending_.exchange(false);
        return true;
    }
    const std::int64_t limit = retention_ * kTicksPerSecond;
    for (auto it = timeMap_.begin(); it != timeMap_.end();) {
        if (now - it->second >= limit) {
            it = timeMap_.erase(it);
        } else {
            ++it;
        }
    }
    return true;
}

}  // namespace ndpx
