#pragma once
// A cancellation flag that also wakes whatever the cancelled work is blocked
// in (a curl poll, a child process being waited for), so that cancelling
// takes effect at once instead of at the next time-out.

#include <mfw/corelock.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>

namespace ndpx::net {

class CancelToken {
public:
    bool cancelled() const { return cancelled_.load(std::memory_order_acquire); }

    // Sets the flag and runs every registered waker, without the token's
    // lock held. Wakers must be short, must not throw and must not call back
    // into the token.
    void cancel() MFW_EXCLUDES(mutex_);

    // Keeps a waker registered for its own lifetime; once it is gone, no
    // cancel runs it any more. A token already cancelled runs the waker at
    // once.
    class Waker {
    public:
        Waker(CancelToken* token, std::function<void()> wake);
        ~Waker();
        Waker(const Waker&) = delete;
        Waker& operator=(const Waker&) = delete;

    private:
        CancelToken* token_;
        std::list<std::function<void()>>::iterator it_;
    };

private:
    std::atomic<bool> cancelled_{false};
    CORE::Mutex mutex_;
    std::condition_variable idle_;  // no cancel is running wakers
    std::list<std::function<void()>> wakers_ MFW_GUARDED_BY(mutex_);
    int running_ MFW_GUARDED_BY(mutex_) = 0;  // cancels running wakers now
};

}  // namespace ndpx::net
