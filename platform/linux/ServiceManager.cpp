#include <platform/ServiceManager.h>

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace ndpx::platform {

std::optional<std::chrono::microseconds> serviceWatchdogInterval() {
    std::uint64_t usec = 0;
    // Checks WATCHDOG_PID against our own pid, so a child started with our
    // environment does not think the watchdog is its own.
    if (::sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) {
        return std::nullopt;
    }
    return std::chrono::microseconds(usec);
}

bool notifyServiceManager(const std::string& state) {
    // 0 means no NOTIFY_SOCKET: nobody asked to be told.
    return ::sd_notify(0, state.c_str()) > 0;
}

}  // namespace ndpx::platform
