#pragma once
// Wakes the I/O thread's poll from any thread: an eventfd it polls, written
// when a stream has something for it to do (a first queued send, a close, an
// admission, room in the dispatch queue).

#include <platform/UniqueFd.h>

namespace ndpx::ipc::seqpacket {

class IoWaker {
public:
    IoWaker();
    // False when the system gave no descriptor.
    bool valid() const { return fd_.valid(); }
    int fd() const { return fd_.get(); }
    void wake() const;
    // Called by the I/O thread once woken, so that the next poll waits.
    void drain() const;

private:
    platform::UniqueFd fd_;
};

}  // namespace ndpx::ipc::seqpacket
