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
    std::lock_guard lock(wakersMutex_);
    for (auto& wake : wakers_) {
        wake();
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

coreevent::Waker::Waker(coreevent& event, std::function<void()> wake) : event_(event) {
    std::lock_guard lock(event_.wakersMutex_);
    it_ = event_.wakers_.insert(event_.wakers_.end(), std::move(wake));
    if (event_.isSet()) {
        (*it_)();
    }
}

coreevent::Waker::~Waker() {
    std::lock_guard lock(event_.wakersMutex_);
    event_.wakers_.erase(it_);
}

}  // namespace CORE
