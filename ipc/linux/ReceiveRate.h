#pragma once
// The receive limit of one stream: at most `perSecond` messages in a second
// that begins with the first message taken after the last one ended. Owned
// by the I/O thread.

#include <chrono>
#include <cstddef>

namespace ndpx::ipc::seqpacket {

class ReceiveRate {
public:
    using Clock = std::chrono::steady_clock;

    explicit ReceiveRate(std::size_t perSecond) : perSecond_(perSecond) {}

    // Whether one more message may be taken at `now`.
    bool mayTake(Clock::time_point now);
    void took() { ++taken_; }
    // When the current second ends (reading may resume).
    Clock::time_point resumesAt() const { return secondBegan_ + std::chrono::seconds(1); }
    // Notes that the sender is held back; true when that begins an episode,
    // which ends with a second in which it stayed below the limit.
    bool slow();

private:
    const std::size_t perSecond_;
    Clock::time_point secondBegan_ = Clock::time_point::min();
    std::size_t taken_ = 0;
    bool slowed_ = false;
};

}  // namespace ndpx::ipc::seqpacket
