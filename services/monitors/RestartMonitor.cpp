#include "monitors/RestartMonitor.h"

#include "PollThread.h"
#include "services/Jitter.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <random>

namespace ndpx {

RestartMonitor::RestartMonitor(StatusPublisher publish, platform::TimeSource& time)
    : publish_(std::move(publish)), thread_(std::make_unique<PollThread>(time)) {}

RestartMonitor::~RestartMonitor() = default;

void RestartMonitor::SetPollInterval(std::uint64_t seconds) {
    pollSeconds_ = static_cast<std::int64_t>(std::clamp<std::uint64_t>(seconds, 5, 600));
}

void RestartMonitor::Start() {
    const std::int64_t seconds = pollSeconds_;
    const auto started =
        thread_->start("RestartMonitor", [this, seconds](const PollThread::StopWait& stopped) {
            RestartMonitorThreadProc(seconds, stopped);
        });
    switch (started) {
        case PollThread::Start::Started:
            break;
        case PollThread::Start::Closed:
            MFW_LOG(CORE::kLogDebug,
                    "RestartMonitor::Start(): Restart monitor has already been stopped");
            break;
        case PollThread::Start::AlreadyRunning:
            MFW_LOG(CORE::kLogDebug, "RestartMonitor::Start(): Thread is already running.");
            break;
        case PollThread::Start::Failed:
            MFW_LOG(CORE::kLogError, "RestartMonitor::Start(): Unable to start the poll thread");
            break;
    }
}

void RestartMonitor::Stop() {
    // Only a stop that ended a thread is final: a stop before any start
    // must not block a later start.
    if (thread_->stop(true)) {
        MFW_LOG(CORE::kLogDebug, "RestartMonitor::Stop(): Thread has been stopped");
    } else {
        MFW_LOG(CORE::kLogDebug, "RestartMonitor::Stop(): Thread is not running");
    }
}

void RestartMonitor::RestartMonitorThreadProc(
    std::int64_t seconds, const std::function<bool(std::chrono::milliseconds)>& stopped) {
    std::mt19937 generator(std::random_device{}());
    // The first "INIT" only after a full wait: the answer that started us
    // has just been handled.
    while (!stopped(jitteredWait(seconds, uniformDraw(generator)))) {
        publish_("INIT", kStatusDetailNone, {});
    }
}

}  // namespace ndpx
