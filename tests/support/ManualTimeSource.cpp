#include "support/ManualTimeSource.h"

#include <algorithm>

namespace ndpx::test {

namespace {

// A fixed, recognisable start: 2024-01-01T00:00:00Z, one hour after "boot".
constexpr auto kStartSystem = std::chrono::sys_days{std::chrono::year{2024} / 1 / 1};
constexpr std::chrono::hours kStartSteady{1};

}  // namespace

ManualTimeSource::ManualTimeSource()
    : system_(kStartSystem), steady_(SteadyTime{} + kStartSteady) {}

ManualTimeSource::SystemTime ManualTimeSource::systemNow() const {
    std::lock_guard lock(mutex_);
    return system_;
}

ManualTimeSource::SteadyTime ManualTimeSource::steadyNow() const {
    std::lock_guard lock(mutex_);
    return steady_;
}

std::uint64_t ManualTimeSource::bootMilliseconds() const {
    std::lock_guard lock(mutex_);
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(steady_.time_since_epoch()).count());
}

bool ManualTimeSource::waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                                 SteadyTime deadline, const Predicate& pred) {
    while (!pred()) {
        std::uint64_t id = 0;
        {
            // Checking the time and registering happen under mutex_ while the
            // caller's lock is held, so an advance() either is seen here or
            // finds us registered and notifies after we sleep.
            std::lock_guard guard(mutex_);
            if (steady_ >= deadline) {
                break;
            }
            id = ++nextWaiterId_;
            waiters_.push_back(Waiter{lock.mutex(), &cv, id});
            waitersChanged_.notify_all();
        }
        cv.wait(lock);

        std::unique_lock guard(mutex_);
        const auto it = std::find_if(waiters_.begin(), waiters_.end(),
                                     [&](const Waiter& w) { return w.id == id; });
        if (it != waiters_.end()) {
            waiters_.erase(it);  // woken by someone else than advance()
            waitersChanged_.notify_all();
        }
        if (notifying_ > 0) {
            // An advance() may still hold our entry and is about to lock our
            // mutex and touch our condition variable: let it finish before
            // the caller may destroy them. It needs our mutex for that.
            lock.unlock();
            waitersChanged_.wait(guard, [&] { return notifying_ == 0; });
            guard.unlock();
            lock.lock();
        }
    }
    return pred();
}

void ManualTimeSource::advance(std::chrono::milliseconds by) {
    std::vector<Waiter> toWake;
    {
        std::lock_guard lock(mutex_);
        if (by > std::chrono::milliseconds::zero()) {
            steady_ += by;
            system_ += by;
        }
        // Every waiter is woken, so none is waiting any more: awaitWaiters()
        // then sees them again only after they have looked at the new time.
        toWake.swap(waiters_);
        ++notifying_;
        waitersChanged_.notify_all();
    }
    // Our own mutex is released first: a waiter takes it while holding its
    // own, so taking them the other way round here would deadlock.
    for (const auto& w : toWake) {
        std::lock_guard lock(*w.mutex);
        w.cv->notify_all();
    }
    std::lock_guard lock(mutex_);
    --notifying_;
    waitersChanged_.notify_all();
}

void ManualTimeSource::setSystemTime(SystemTime t) {
    std::lock_guard lock(mutex_);
    system_ = t;
}

std::size_t ManualTimeSource::waiters() const {
    std::lock_guard lock(mutex_);
    return waiters_.size();
}

bool ManualTimeSource::awaitWaiters(std::size_t n, std::chrono::milliseconds limit) const {
    std::unique_lock lock(mutex_);
    return waitersChanged_.wait_for(lock, limit, [&] { return waiters_.size() >= n; });
}

}  // namespace ndpx::test
