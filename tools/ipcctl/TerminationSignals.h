#pragma once
// SIGINT and SIGTERM as a descriptor instead of a handler: the constructor
// blocks both in the calling thread (and so in threads it starts later) and
// opens a signalfd that stays readable once either is pending. Made first
// thing in main, before any thread.

#include <platform/UniqueFd.h>

namespace ndpx::ipcctl {

class TerminationSignals {
public:
    TerminationSignals();
    // -1 when the system refused; the signals then keep their default action.
    int handle() const { return fd_.get(); }

private:
    platform::UniqueFd fd_;
};

}  // namespace ndpx::ipcctl
