#pragma once
// Manual- and auto-reset events. Waits go through a TimeSource, so tests can
// end a timed wait by advancing virtual time.

#include <platform/TimeSource.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
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

    // Runs `wake` when the event is set (at once if it is set already), for
    // as long as the Waker lives: a wait on something else (a host message,
    // a network request) can end when this event is set. Wakers run on the
    // setting thread under the event's waker lock, so none runs once its
    // Waker is gone; they must be short and must not touch this event.
    class Waker {
    public:
        Waker(coreevent& event, std::function<void()> wake);
        ~Waker();
        Waker(const Waker&) = delete;
        Waker& operator=(const Waker&) = delete;

    private:
        coreevent& event_;
        std::list<std::function<void()>>::iterator it_;
    };

private:
    const Reset reset_;
    ndpx::platform::TimeSource& time_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool signalled_;
    std::mutex wakersMutex_;
    std::list<std::function<void()>> wakers_;
};

}  // namespace CORE
