#include "TerminationSignals.h"

#include <signal.h>
#include <sys/signalfd.h>

namespace ndpx::ipcctl {

TerminationSignals::TerminationSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    fd_.reset(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd_) {
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }
}

}  // namespace ndpx::ipcctl
