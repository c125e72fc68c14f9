#pragma once
// The serving thread's loop of the host's local servers (agentctl's socket,
// the metrics endpoint): one client at a time until the stop signal is set.
// An accept that fails (out of descriptors, say) is logged and tried again
// after a pause, not spun on.

#include <mfw/log.h>
#include <platform/LocalSocket.h>

#include <chrono>
#include <string>

namespace ndpx::host {

template <class Listener, class Serve>
void acceptUntilStopped(Listener& listener, const platform::StopSignal& stop, const char* server,
                        Serve&& serve) {
    for (;;) {
        platform::LocalStream client;
        std::string error;
        const platform::IoResult accepted = listener.accept(client, stop, error);
        if (accepted == platform::IoResult::Stopped) {
            return;
        }
        if (accepted != platform::IoResult::Ok) {
            CORE::__SysMessage("agenthost", CORE::kLogWarning, "%s: cannot accept: %s", server,
                               error.c_str());
            stop.wait(std::chrono::milliseconds(500));
            continue;
        }
        serve(client);
    }
}

}  // namespace ndpx::host
