#pragma once
// Every clock reading and every timed wait of the agent goes through a
// TimeSource, so that tests can drive virtual time (see tests/support).

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace ndpx::platform {

class TimeSource {
public:
    using SystemTime = std::chrono::system_clock::time_point;
    using SteadyTime = std::chrono::steady_clock::time_point;
    using Predicate = std::function<bool()>;

    virtual ~TimeSource() = default;

    virtual SystemTime systemNow() const = 0;
    virtual SteadyTime steadyNow() const = 0;
    // Milliseconds since the machine booted (GetTickCount64 on Windows).
    virtual std::uint64_t bootMilliseconds() const = 0;

    // Waits on `cv` (whose mutex `lock` holds) until `pred` is true or the
    // steady `deadline` passes. Returns the final value of `pred`.
    virtual bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                           SteadyTime deadline, const Predicate& pred) = 0;

    // As waitUntil with a relative time-out; a negative time-out waits not at
    // all, std::chrono::milliseconds::max() waits without limit.
    bool waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 std::chrono::milliseconds timeout, const Predicate& pred);

    // The process's real clock.
    static TimeSource& real();
};

// A steady deadline `timeout` after `now`, saturating instead of overflowing.
TimeSource::SteadyTime deadlineAfter(TimeSource::SteadyTime now, std::chrono::milliseconds timeout);

// 100-ns ticks since 1601-01-01, the Windows FILETIME scale used in time maps.
std::int64_t toFileTimeTicks(TimeSource::SystemTime t);

}  // namespace ndpx::platform
