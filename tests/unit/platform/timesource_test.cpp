#include <platform/TimeSource.h>

#include "support/ManualTimeSource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>
#include <vector>

namespace ndpx::platform {
namespace {

using namespace std::chrono_literals;
using Steady = TimeSource::SteadyTime;

TEST(DeadlineAfter, SaturatesAndTreatsNonPositiveAsNow) {
    const Steady now = Steady{} + 10s;
    EXPECT_EQ(deadlineAfter(now, 250ms), now + 250ms);
    EXPECT_EQ(deadlineAfter(now, 0ms), now);
    EXPECT_EQ(deadlineAfter(now, -5ms), now);
    EXPECT_EQ(deadlineAfter(now, std::chrono::milliseconds::min()), now);
    EXPECT_EQ(deadlineAfter(now, std::chrono::milliseconds::max()), Steady::max());
    // Too large for nanoseconds, and large enough to overflow from `now`.
    EXPECT_EQ(deadlineAfter(now, std::chrono::milliseconds::max() - 1ms), Steady::max());
    EXPECT_EQ(deadlineAfter(Steady::max() - 1s, 2s), Steady::max());
    EXPECT_EQ(deadlineAfter(Steady::max() - 2s, 1s), Steady::max() - 1s);
}

TEST(FileTimeTicks, CountsHundredNanosecondsSince1601) {
    using std::chrono::sys_days;
    const TimeSource::SystemTime unixEpoch{};
    EXPECT_EQ(toFileTimeTicks(unixEpoch), 116444736000000000);
    EXPECT_EQ(toFileTimeTicks(sys_days{std::chrono::year{2024} / 1 / 1}), 133485408000000000);
    EXPECT_EQ(toFileTimeTicks(unixEpoch + 150ns), 116444736000000001);
    // Before 1970 the fraction rounds down, not toward zero.
    EXPECT_EQ(toFileTimeTicks(unixEpoch - 50ns), 116444735999999999);
}

TEST(RealTimeSource, ClocksAndWaits) {
    TimeSource& ts = TimeSource::real();
    const auto sys = ts.systemNow();
    EXPECT_LT(std::chrono::abs(sys - std::chrono::system_clock::now()), 1s);

    // Boot time agrees with the kernel's uptime, which counts since boot.
    double uptimeSeconds = 0;
    std::ifstream("/proc/uptime") >> uptimeSeconds;
    const auto bootMs = static_cast<double>(ts.bootMilliseconds());
    EXPECT_NEAR(bootMs / 1000.0, uptimeSeconds, 2.0);

    std::mutex m;
    std::condition_variable cv;
    std::unique_lock lock(m);
    const auto before = ts.steadyNow();
    EXPECT_FALSE(ts.waitFor(lock, cv, -1ms, [] { return false; }));
    EXPECT_TRUE(ts.waitFor(lock, cv, std::chrono::milliseconds::max(), [] { return true; }));
    EXPECT_FALSE(ts.waitFor(lock, cv, 20ms, [] { return false; }));
    EXPECT_GE(ts.steadyNow() - before, 20ms);

    bool ready = false;
    std::thread notifier([&] {
        std::lock_guard g(m);
        ready = true;
        cv.notify_all();
    });
    EXPECT_TRUE(ts.waitFor(lock, cv, std::chrono::milliseconds::max(), [&] { return ready; }));
    lock.unlock();
    notifier.join();
}

}  // namespace
}  // namespace ndpx::platform

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

TEST(ManualTimeSource, ClocksMoveOnlyWhenTold) {
    ManualTimeSource ts;
    const auto sys = ts.systemNow();
    const auto steady = ts.steadyNow();
    const auto boot = ts.bootMilliseconds();
    EXPECT_EQ(ts.systemNow(), sys);

    ts.advance(1500ms);
    EXPECT_EQ(ts.systemNow(), sys + 1500ms);
    EXPECT_EQ(ts.steadyNow(), steady + 1500ms);
    EXPECT_EQ(ts.bootMilliseconds(), boot + 1500);

    ts.setSystemTime(sys - 24h);  // a clock change moves the wall clock only
    EXPECT_EQ(ts.systemNow(), sys - 24h);
    EXPECT_EQ(ts.steadyNow(), steady + 1500ms);
}

// A thread in waitFor on the manual clock, reporting each predicate check.
struct Sleeper {
    ManualTimeSource& ts;
    std::mutex m;
    std::condition_variable cv;
    std::condition_variable checked;
    bool flag = false;
    int checks = 0;
    std::future<bool> result;

    Sleeper(ManualTimeSource& source, std::chrono::milliseconds timeout) : ts(source) {
        result = std::async(std::launch::async, [this, timeout] {
            std::unique_lock lock(m);
            return ts.waitFor(lock, cv, timeout, [this] {
                ++checks;
                checked.notify_all();
                return flag;
            });
        });
    }
    ~Sleeper() {
        // Never leave the thread blocked, even when an assertion failed.
        {
            std::lock_guard lock(m);
            flag = true;
        }
        cv.notify_all();
        if (result.valid()) {
            result.wait();
        }
    }
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    // Waits until the sleeper has looked at its predicate `n` times.
    bool awaitChecks(int n) {
        std::unique_lock lock(m);
        return checked.wait_for(lock, 5s, [&] { return checks >= n; });
    }
};

TEST(ManualTimeSource, WakesAtTheDeadlineAndNotBefore) {
    ManualTimeSource ts;
    Sleeper sleeper(ts, 100ms);
    ASSERT_TRUE(ts.awaitWaiters(1));

    ts.advance(99ms);
    // It woke, checked again, and went back to sleep: the deadline is not due.
    ASSERT_TRUE(sleeper.awaitChecks(2));
    ASSERT_TRUE(ts.awaitWaiters(1));
    EXPECT_EQ(sleeper.result.wait_for(0s), std::future_status::timeout);

    ts.advance(1ms);
    ASSERT_EQ(sleeper.result.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(sleeper.result.get());
    EXPECT_EQ(ts.waiters(), 0u);
}

TEST(ManualTimeSource, NotifyEndsWaitBeforeDeadlineAndNoLimitNeverTimesOut) {
    ManualTimeSource ts;
    Sleeper sleeper(ts, std::chrono::milliseconds::max());
    ASSERT_TRUE(ts.awaitWaiters(1));
    ts.advance(std::chrono::hours(24 * 365 * 100));
    ASSERT_TRUE(sleeper.awaitChecks(2));
    ASSERT_TRUE(ts.awaitWaiters(1));
    EXPECT_EQ(sleeper.result.wait_for(0s), std::future_status::timeout);
    {
        std::lock_guard lock(sleeper.m);
        sleeper.flag = true;
    }
    sleeper.cv.notify_all();
    ASSERT_EQ(sleeper.result.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(sleeper.result.get());
}

TEST(ManualTimeSource, ThreadsSharingOneConditionWakeAtTheirOwnDeadlines) {
    ManualTimeSource ts;
    std::mutex m;
    std::condition_variable cv;
    bool quit = false;
    auto waitOnShared = [&](std::chrono::milliseconds timeout) {
        return std::async(std::launch::async, [&, timeout] {
            std::unique_lock lock(m);
            return ts.waitFor(lock, cv, timeout, [&] { return quit; });
        });
    };
    auto shortWait = waitOnShared(10ms);
    auto longWait = waitOnShared(20ms);
    struct Release {  // declared last: frees the threads even after a failure
        std::mutex& m;
        std::condition_variable& cv;
        bool& quit;
        ~Release() {
            std::lock_guard lock(m);
            quit = true;
            cv.notify_all();
        }
    } release{m, cv, quit};

    ASSERT_TRUE(ts.awaitWaiters(2));
    ts.advance(10ms);
    ASSERT_EQ(shortWait.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(shortWait.get());
    ASSERT_TRUE(ts.awaitWaiters(1));
    EXPECT_EQ(longWait.wait_for(0s), std::future_status::timeout);

    cv.notify_all();  // a stray wake-up must not lose the long waiter's place
    ASSERT_TRUE(ts.awaitWaiters(1));
    ts.advance(10ms);
    ASSERT_EQ(longWait.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(longWait.get());
}

// Waiters whose mutex and condition variable die right after the wait, while
// another thread keeps advancing: advance() must never touch them afterwards.
TEST(ManualTimeSource, ShortLivedWaitersSurviveConcurrentAdvance) {
    ManualTimeSource ts;
    std::atomic<bool> stop{false};
    std::thread advancer([&] {
        while (!stop) {
            ts.advance(1ms);
        }
    });
    std::vector<std::thread> waiters;
    std::atomic<int> timedOut{0};
    for (int t = 0; t < 4; ++t) {
        waiters.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                auto m = std::make_unique<std::mutex>();
                auto cv = std::make_unique<std::condition_variable>();
                std::unique_lock lock(*m);
                if (!ts.waitFor(lock, *cv, 2ms, [] { return false; })) {
                    ++timedOut;
                }
            }
        });
    }
    for (auto& w : waiters) {
        w.join();
    }
    stop = true;
    advancer.join();
    EXPECT_EQ(timedOut, 800);
}

}  // namespace
}  // namespace ndpx::test
