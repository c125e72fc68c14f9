#pragma once
// Lets one stream's events (its callbacks) run only while the stream is
// open. A close shuts the gate and waits for the event running, so that none
// runs once the close has returned; a close called from within an event (on
// the dispatch thread) does not wait for itself.

#include <condition_variable>
#include <mutex>

namespace ndpx::ipc::seqpacket {

class CallbackGate {
public:
    // On the dispatch thread, before an event: false once shut.
    bool enter();
    // After the event that enter() let through.
    void leave();
    // No event runs after this returns, except the running one when
    // `waitForRunning` is false (the caller is that event).
    void shut(bool waitForRunning);

private:
    std::mutex mutex_;
    std::condition_variable left_;
    bool shut_ = false;
    bool running_ = false;
};

}  // namespace ndpx::ipc::seqpacket
