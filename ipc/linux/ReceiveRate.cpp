#include "ReceiveRate.h"

namespace ndpx::ipc::seqpacket {

bool ReceiveRate::mayTake(Clock::time_point now) {
    if (now >= resumesAt()) {
        if (taken_ < perSecond_) {
            slowed_ = false;
        }
        secondBegan_ = now;
        taken_ = 0;
    }
    return taken_ < perSecond_;
}

bool ReceiveRate::slow() {
    const bool began = !slowed_;
    slowed_ = true;
    return began;
}

}  // namespace ndpx::ipc::seqpacket
