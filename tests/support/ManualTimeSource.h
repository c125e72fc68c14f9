#pragma once
// Virtual time for tests: time stands still until advance() moves it, and
// every wait whose deadline has been reached wakes up.

#include <platform/TimeSource.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace ndpx::test {

class ManualTimeSource : public platform::TimeSource {
public:
    ManualTimeSource();

    SystemTime systemNow() const override;
    SteadyTime steadyNow() const override;
    std::uint64_t bootMilliseconds() const override;
    bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                   SteadyTime deadline, const Predicate& pred) override;

    // Moves both clocks forward and wakes every waiter; a woken waiter counts
    // in waiters() again once it has gone back to sleep.
    void advance(std::chrono::milliseconds by);
    // Moves only the wall clock (a clock change), both directions.
    void setSystemTime(SystemTime t);

    // Number of threads blocked in a timed wait right now.
    std::size_t waiters() const;
    // Blocks (in real time, up to `limit`) until at least `n` threads wait.
    bool awaitWaiters(std::size_t n,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

private:
    struct Waiter {
        std::mutex* mutex;
        std::condition_variable* cv;
        std::uint64_t id;  // threads may share a mutex and condition variable
    };
    mutable std::mutex mutex_;
    mutable std::condition_variable waitersChanged_;
    SystemTime system_;
    SteadyTime steady_;
    std::vector<Waiter> waiters_;
    std::size_t notifying_ = 0;  // advance() calls still notifying waiters
    std::uint64_t nextWaiterId_ = 0;
};

}  // namespace ndpx::test
