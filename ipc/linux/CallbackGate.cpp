#include "CallbackGate.h"

namespace ndpx::ipc::seqpacket {

bool CallbackGate::enter() {
    const std::lock_guard lock(mutex_);
    running_ = !shut_;
    return running_;
}

void CallbackGate::leave() {
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
    }
    left_.notify_all();
}

void CallbackGate::shut(bool waitForRunning) {
    std::unique_lock lock(mutex_);
    shut_ = true;
    if (waitForRunning) {
        left_.wait(lock, [this] { return !running_; });
    }
}

}  // namespace ndpx::ipc::seqpacket
