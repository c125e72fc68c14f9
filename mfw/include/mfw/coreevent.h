#pragma once
// Manual- and auto-reset events. Waits go through a TimeSource, so tests can
// end a timed wait by advancing virtual time.

#include <platform/TimeSource.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace CORE {

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFFu;

class coreevent {
public:
    enum class Reset { Manual, Auto };

    explicit coreevent(Reset reset = Reset::Manual, bool initiallySet = false,
                       ndpx::platform::TimeSource& time = ndpx::platform::TimeSource::real());
    coreevent(const coreevent&) = delete;
    coreevent& operator=(const coreevent&) = delete;

    void set();
    void reset();
    bool isSet() const;

    // True when the event was (or became) signalled within the time-out. An
    // auto-reset event is reset by the wait that sees it.
    bool wait(std::chrono::milliseconds timeout);
    // kInfinite waits without limit.
    bool waitMs(std::uint32_t timeoutMs);

    ndpx::platform::TimeSource& timeSource() const { return time_; }

private:
    const Reset reset_;
    ndpx::platform::TimeSource& time_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool signalled_;
};

}  // namespace CORE
