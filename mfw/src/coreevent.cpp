#include <mfw/coreevent.h>

namespace CORE {

coreevent::coreevent(Reset reset, bool initiallySet, ndpx::platform::TimeSource& time)
    : reset_(reset), time_(time), signalled_(initiallySet) {}

void coreevent::set() {
    {
        std::lock_guard lock(mutex_);
        signalled_ = true;
    }
    if (reset_ == Reset::Manual) {
        cv_.notify_all();
    } else {
        cv_.notify_one();
    }
}

void coreevent::reset() {
    std::lock_guard lock(mutex_);
    signalled_ = false;
}

bool coreevent::isSet() const {
    std::lock_guard lock(mutex_);
    return signalled_;
}

bool coreevent::wait(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    const bool got = time_.waitFor(lock, cv_, timeout, [this] { return signalled_; });
    if (got && reset_ == Reset::Auto) {
        signalled_ = false;
    }
    return got;
}

bool coreevent::waitMs(std::uint32_t timeoutMs) {
    return wait(timeoutMs == kInfinite ? std::chrono::milliseconds::max()
                                       : std::chrono::milliseconds(timeoutMs));
}

}  // namespace CORE
