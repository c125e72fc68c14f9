#include <platform/TimeSource.h>

#include "BootClock.h"

namespace ndpx::platform {

namespace {

class RealTimeSource final : public TimeSource {
public:
    SystemTime systemNow() const override { return std::chrono::system_clock::now(); }
    SteadyTime steadyNow() const override { return std::chrono::steady_clock::now(); }

    std::uint64_t bootMilliseconds() const override {
        if (const auto ms = bootClockMilliseconds()) {
            return *ms;
        }
        const auto sinceEpoch = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count());
    }

    bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   SteadyTime deadline, const Predicate& pred) override {
        if (deadline == SteadyTime::max()) {
            cv.wait(lock, pred);
            return true;
        }
        return cv.wait_until(lock, deadline, pred);
    }
};

}  // namespace

bool TimeSource::waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                         std::chrono::milliseconds timeout, const Predicate& pred) {
    return waitUntil(lock, cv, deadlineAfter(steadyNow(), timeout), pred);
}

TimeSource& TimeSource::real() {
    static RealTimeSource instance;
    return instance;
}

TimeSource::SteadyTime deadlineAfter(TimeSource::SteadyTime now,
                                     std::chrono::milliseconds timeout) {
    using Duration = TimeSource::SteadyTime::duration;
    if (timeout == std::chrono::milliseconds::max()) {
        return TimeSource::SteadyTime::max();
    }
    if (timeout <= std::chrono::milliseconds::zero()) {
        return now;
    }
    // The time-out may not even fit the clock's finer duration type.
    if (timeout >= std::chrono::duration_cast<std::chrono::milliseconds>(Duration::max())) {
        return TimeSource::SteadyTime::max();
    }
    const auto step = std::chrono::duration_cast<Duration>(timeout);
    if (now.time_since_epoch() > Duration::max() - step) {
        return TimeSource::SteadyTime::max();
    }
    return now + step;
}

std::int64_t toFileTimeTicks(TimeSource::SystemTime t) {
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    // 1601-01-01 to 1970-01-01 is 11644473600 seconds.
    constexpr std::int64_t kUnixEpochTicks = 116'444'736'000'000'000;
    return std::chrono::floor<Ticks>(t.time_since_epoch()).count() + kUnixEpochTicks;
}

}  // namespace ndpx::platform
