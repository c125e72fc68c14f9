#pragma once
// Remembers, for a limited time, the IDs of commands already handed to the
// desktop worker, so that a command the broker delivers again is dropped.

#include <mfw/coretimer.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace ndpx {

class DuplicateMessageHandler : public CORE::coretimer {
public:
    // `retentionSeconds` 0 switches the filter off (no timer);
    // `timerPeriodMs` is the ageing period.
    DuplicateMessageHandler(std::int64_t retentionSeconds, std::uint32_t timerPeriodMs,
                            ndpx::platform::TimeSource& time = ndpx::platform::TimeSource::real());
    ~DuplicateMessageHandler() override;

    bool IsEnabled() const { return enabled_; }
    bool IsDuplicate(const std::wstring& id);
    void Record(const std::wstring& id);
    void Clear();
    void SetConnected(bool connected);

    std::size_t size();

protected:
    bool TimerCallback() override;

private:
    bool enabled_ = true;
    std::atomic<bool> connected_{false};
    std::atomic<bool> refreshPending_{false};
    const std::int64_t retention_;
    ndpx::platform::TimeSource& time_;
    std::recursive_mutex mutex_;
    std::map<std::wstring, std::int64_t> timeMap_;  // ID -> 100-ns wall-clock ticks
};

}  // namespace ndpx
