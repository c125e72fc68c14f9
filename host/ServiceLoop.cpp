#include "host/ServiceLoop.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/log.h>
#include <platform/ServiceManager.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

// A worker wedged behind a stuck request is what the watchdog is for: if it
// cannot answer in a quarter of the interval, the ping is left out.
bool systemWorkerAnswers(std::chrono::microseconds interval) {
    CORE::PropertyBag request;
    CORE::PropertyBag response;
    const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(interval / 4);
    return CORE::MessageHandler::SendMsg(L"System", L"Ping", request, response,
                                         static_cast<std::uint32_t>(limit.count())) ==
           CORE::kErrorSuccess;
}

}  // namespace

int runUntilStopSignal(const sigset_t& signals) {
    const auto watchdog = platform::serviceWatchdogInterval();
    if (!watchdog) {
        int signal = 0;
        sigwait(&signals, &signal);
        return signal;
    }
    // Twice per interval, as the manager asks: once is too close to its limit.
    const auto period = *watchdog / 2;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period);
    const timespec wait{
        static_cast<time_t>(seconds.count()),
        static_cast<long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(period - seconds).count())};
    bool late = false;
    for (;;) {
        const int signal = sigtimedwait(&signals, nullptr, &wait);
        if (signal > 0) {
            return signal;
        }
        if (errno != EAGAIN && errno != EINTR) {
            CORE::__SysMessage(kSource, CORE::kLogError, "agenthost: cannot wait for signals (%d)",
                               errno);
            int taken = 0;
            sigwait(&signals, &taken);
            return taken;
        }
        if (systemWorkerAnswers(*watchdog)) {
            platform::notifyAlive();
            late = false;
        } else if (!late) {
            CORE::__SysMessage(kSource, CORE::kLogError,
                               "agenthost: the System worker does not answer; the watchdog is "
                               "no longer told the host is alive");
            late = true;
        }
    }
}

}  // namespace ndpx::host
