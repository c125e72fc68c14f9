// One kind of line cannot flood the log: past its burst the rest of its
// window is counted and told in one line; other kinds are not held back.

#include <mfw/log.h>
#include <mfw/logthrottle.h>

#include <gtest/gtest.h>

namespace CORE {
namespace {

using namespace std::chrono_literals;
using Clock = LogThrottle::Clock;

TEST(LogThrottleTest, ABurstPassesTheRestIsCountedAndToldOnceTheWindowEnds) {
    LogThrottle throttle(LogThrottle::Options{60s, 3, 16});
    const Clock::time_point t0{};
    std::vector<LogThrottle::LeftOut> due;
    int written = 0;
    for (int i = 0; i < 10; ++i) {
        written += throttle.admit("ndpx_mqtt", kLogError, "Failed to parse: %s",
                                  "Failed to parse: x" + std::to_string(i), t0 + 1s, due)
                       ? 1
                       : 0;
    }
    EXPECT_EQ(written, 3);
    // Another kind, and the same format from another source, pass.
    EXPECT_TRUE(throttle.admit("ndpx_mqtt", kLogError, "Other %d", "Other 1", t0 + 2s, due));
    EXPECT_TRUE(throttle.admit("mfw", kLogError, "Failed to parse: %s", "Failed to parse: y",
                               t0 + 2s, due));
    EXPECT_TRUE(due.empty());

    // A line of any kind after the window tells of the left-out ones.
    EXPECT_TRUE(throttle.admit("mfw", kLogWarning, "Later", "Later", t0 + 62s, due));
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].count, 7u);
    EXPECT_EQ(due[0].source, "ndpx_mqtt");
    EXPECT_EQ(leftOutText(due[0]), "7 more lines like this one were left out: Failed to parse: x3");
    // The kind starts a fresh window.
    due.clear();
    EXPECT_TRUE(throttle.admit("ndpx_mqtt", kLogError, "Failed to parse: %s", "Failed to parse: z",
                               t0 + 63s, due));

    // What is still held back is told when the log closes.
    for (int i = 0; i < 5; ++i) {
        throttle.admit("ndpx_mqtt", kLogError, "Other %d", "Other", t0 + 64s, due);
    }
    const auto rest = throttle.drain();
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].count, 2u);
}

TEST(LogThrottleTest, KindsPastTheLimitPassUnthrottled) {
    LogThrottle throttle(LogThrottle::Options{60s, 1, 2});
    std::vector<LogThrottle::LeftOut> due;
    const Clock::time_point t0{};
    EXPECT_TRUE(throttle.admit("m", kLogError, "a", "a", t0, due));
    EXPECT_TRUE(throttle.admit("m", kLogError, "b", "b", t0, due));
    EXPECT_FALSE(throttle.admit("m", kLogError, "a", "a", t0, due));
    EXPECT_TRUE(throttle.admit("m", kLogError, "c", "c", t0, due));
    EXPECT_TRUE(throttle.admit("m", kLogError, "c", "c", t0, due));
}

}  // namespace
}  // namespace CORE
