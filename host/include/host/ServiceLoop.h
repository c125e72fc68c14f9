#pragma once
// The host's main loop: waits for a stop signal and, while the service
// manager keeps a watchdog on the host, tells it the host is alive, as long
// as the host's own "System" worker still answers.

#include <signal.h>

namespace ndpx::host {

// Returns the stop signal taken. `signals` must be blocked in every thread.
int runUntilStopSignal(const sigset_t& signals);

}  // namespace ndpx::host
