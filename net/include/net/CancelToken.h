#pragma once
// A cancellation flag that also wakes whatever the cancelled work is blocked
// in (a curl poll, a child process being waited for), so that cancelling
// takes effect at once instead of at the next time-out.

#include <atomic>
#include <functional>
#include <list>
#include <mutex>

namespace ndpx::net {

class CancelToken {
public:
    bool cancelled() const { return cancelled_.load(std::memory_order_acquire); }

    // Sets the flag and runs every registered waker. Wakers run under the
    // token's mutex so that none can outlive its registration; they must be
    // short and must not call back into the token.
    void cancel() {
        cancelled_.store(true, std::memory_order_release);
        std::lock_guard lock(mutex_);
        for (auto& waker : wakers_) {
            waker();
        }
    }

    // Keeps a waker registered for its own lifetime. A token already
    // cancelled runs the waker at once.
    class Waker {
    public:
        Waker(CancelToken* token, std::function<void()> wake) : token_(token) {
            if (token_ == nullptr) {
                return;
            }
            std::lock_guard lock(token_->mutex_);
            it_ = token_->wakers_.insert(token_->wakers_.end(), std::move(wake));
            if (token_->cancelled()) {
                (*it_)();
            }
        }
        ~Waker() {
            if (token_ != nullptr) {
                std::lock_guard lock(token_->mutex_);
                token_->wakers_.erase(it_);
            }
        }
        Waker(const Waker&) = delete;
        Waker& operator=(const Waker&) = delete;

    private:
        CancelToken* token_;
        std::list<std::function<void()>>::iterator it_;
    };

private:
    std::atomic<bool> cancelled_{false};
    std::mutex mutex_;
    std::list<std::function<void()>> wakers_;
};

}  // namespace ndpx::net
