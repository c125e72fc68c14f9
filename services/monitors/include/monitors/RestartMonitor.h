#pragma once
// Asks the cloud again, by publishing "INIT" at a jittered poll interval,
// while the desktop is not ready to be customised. The template handler
// starts it on a customisation answer that says "not ready" and stops it
// once one says "ready"; after that stop it never starts again in this run.

#include "monitors/StatusPublisher.h"

#include <platform/TimeSource.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace ndpx {

class PollThread;

class RestartMonitor {
public:
    explicit RestartMonitor(StatusPublisher publish,
                            platform::TimeSource& time = platform::TimeSource::real());
    ~RestartMonitor();
    RestartMonitor(const RestartMonitor&) = delete;
    RestartMonitor& operator=(const RestartMonitor&) = delete;

    // Clamped to 5..600 seconds; a running thread keeps the interval it
    // started with.
    void SetPollInterval(std::uint64_t seconds);
    std::int64_t pollInterval() const { return pollSeconds_; }

    void Start();
    void Stop();

private:
    void RestartMonitorThreadProc(std::int64_t seconds,
                                  const std::function<bool(std::chrono::milliseconds)>& stopped);

    const StatusPublisher publish_;
    std::atomic<std::int64_t> pollSeconds_{30};
    const std::unique_ptr<PollThread> thread_;
};

}  // namespace ndpx
