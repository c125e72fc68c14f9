#include <platform/TimeSource.h>

#include "support/ManualTimeSource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
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

// Threads in waitFor on one condition of the manual clock, counting the
// predicate checks. The fixture frees them even after a failed assertion.
class ManualWaits : public ::testing::Test {
protected:
    ~ManualWaits() override { release(); }

    std::future<bool>& start(std::chrono::milliseconds timeout) {
        return waits_.emplace_back(std::async(std::launch::async, [this, timeout] {
            std::unique_lock lock(m_);
            return ts_.waitFor(lock, cv_, timeout, [this] {
                ++checks_;
                checked_.notify_all();
                return quit_;
            });
        }));
    }
    void release() {
        {
            std::lock_guard lock(m_);
            quit_ = true;
        }
        cv_.notify_all();
    }
    // Waits until the predicates were looked at `n` times in all.
    bool awaitChecks(int n) {
        std::unique_lock lock(m_);
        return checked_.wait_for(lock, 5s, [&] { return checks_ >= n; });
    }

    ManualTimeSource ts_;
    std::mutex m_;
    std::condition_variable cv_;
    std::condition_variable checked_;
    bool quit_ = false;
    int checks_ = 0;
    std::deque<std::future<bool>> waits_;  // destroyed first: joins the threads
};

TEST_F(ManualWaits, EachWakesAtItsOwnDeadlineAndNotBefore) {
    auto& shortWait = start(10ms);
    auto& longWait = start(20ms);
    ASSERT_TRUE(ts_.awaitWaiters(2));
    ts_.advance(9ms);
    // Both woke, checked again, and went back to sleep: no deadline is due.
    ASSERT_TRUE(awaitChecks(4));
    ASSERT_TRUE(ts_.awaitWaiters(2));
    EXPECT_EQ(shortWait.wait_for(0s), std::future_status::timeout);

    ts_.advance(1ms);
    ASSERT_EQ(shortWait.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(shortWait.get());
    ASSERT_TRUE(ts_.awaitWaiters(1));
    EXPECT_EQ(longWait.wait_for(0s), std::future_status::timeout);

    cv_.notify_all();  // a stray wake-up must not lose the long waiter's place
    ASSERT_TRUE(ts_.awaitWaiters(1));
    ts_.advance(10ms);
    ASSERT_EQ(longWait.wait_for(5s), std::future_status::ready);
    EXPECT_FALSE(longWait.get());
    EXPECT_EQ(ts_.waiters(), 0u);
}

TEST_F(ManualWaits, NoLimitNeverTimesOutAndNotifyEndsTheWait) {
    auto& wait = start(std::chrono::milliseconds::max());
    ASSERT_TRUE(ts_.awaitWaiters(1));
    ts_.advance(std::chrono::hours(24 * 365 * 100));
    ASSERT_TRUE(awaitChecks(2));
    ASSERT_TRUE(ts_.awaitWaiters(1));
    EXPECT_EQ(wait.wait_for(0s), std::future_status::timeout);
    release();
    ASSERT_EQ(wait.wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(wait.get());
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
