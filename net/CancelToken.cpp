#include "net/CancelToken.h"

#include <vector>

namespace ndpx::net {

void CancelToken::cancel() {
    cancelled_.store(true, std::memory_order_release);
    std::vector<std::function<void()>*> wakers;
    {
        CORE::MutexLock lock(mutex_);
        for (auto& waker : wakers_) {
            wakers.push_back(&waker);
        }
        ++running_;
    }
    // Each stays registered until running_ is back to zero: its Waker waits.
    for (auto* wake : wakers) {
        (*wake)();
    }
    CORE::MutexLock lock(mutex_);
    if (--running_ == 0) {
        idle_.notify_all();
    }
}

CancelToken::Waker::Waker(CancelToken* token, std::function<void()> wake) : token_(token) {
    if (token_ == nullptr) {
        return;
    }
    bool cancelled = false;
    {
        CORE::MutexLock lock(token_->mutex_);
        it_ = token_->wakers_.insert(token_->wakers_.end(), std::move(wake));
        // Read under the lock: a cancel that does not see this waker has set
        // the flag before taking the lock, so it is seen here.
        cancelled = token_->cancelled();
    }
    if (cancelled) {
        (*it_)();  // only this object's destructor removes it
    }
}

CancelToken::Waker::~Waker() {
    if (token_ == nullptr) {
        return;
    }
    CORE::MutexLock lock(token_->mutex_);
    // A cancel may be about to run this waker.
    lock.wait(token_->idle_, [this] {
        token_->mutex_.assertHeld();  // the wait holds it when it asks
        return token_->running_ == 0;
    });
    token_->wakers_.erase(it_);
}

}  // namespace ndpx::net
