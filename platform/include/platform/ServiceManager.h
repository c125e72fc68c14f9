#pragma once
// The service manager that started this process: readiness, stopping and
// liveness, told over the socket it named. Started by hand, there is none,
// and every call is a no-op that says so by returning false.

#include <chrono>
#include <optional>
#include <string>

namespace ndpx::platform {

// How often the manager wants to hear that we are alive, if it wants to at
// all (a watchdog meant for this process, not for a parent that passed its
// environment on).
std::optional<std::chrono::microseconds> serviceWatchdogInterval();

// Sends "NAME=value" lines, e.g. "READY=1\nSTATUS=Connected". False when
// there is no manager to tell or the message could not be sent.
bool notifyServiceManager(const std::string& state);

inline bool notifyReady(const std::string& status) {
    return notifyServiceManager("READY=1\nSTATUS=" + status);
}
inline bool notifyStopping() {
    return notifyServiceManager("STOPPING=1");
}
inline bool notifyAlive() {
    return notifyServiceManager("WATCHDOG=1");
}

}  // namespace ndpx::platform
