// The registration retry wait: doubling with jitter, the cap, and the
// unbiased bounded draw.

#include "mqtt/Backoff.h"

#include <gtest/gtest.h>

#include <set>

namespace ndpx {
namespace {

TEST(Backoff, DoublesFromTheMinimumWithJitterOnTopAndIsNotCappedAfterTheJitter) {
    std::mt19937 gen(12345);
    std::int32_t interval = kIntervalUnset;
    interval = nextRegistrationInterval(interval, 10, 3600, 0, 10, gen);
    EXPECT_GE(interval, 10);
    EXPECT_LE(interval, 20);
    for (int i = 0; i < 20; ++i) {
        const std::int32_t previous = interval;
        interval = nextRegistrationInterval(interval, 10, 3600, 0, 10, gen);
        const std::int32_t base = std::min(2 * previous, 3600);
        EXPECT_GE(interval, base);
        EXPECT_LE(interval, base + 10);
    }
    EXPECT_GE(interval, 3600);  // at the cap, plus jitter
    EXPECT_LE(interval, 3610);
}

TEST(Backoff, MinimumJitterAboveTheMaximumIsAlwaysTheMinimum) {
    std::mt19937 gen(7);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(nextRegistrationInterval(kIntervalUnset, 10, 3600, 30, 5, gen), 40);
    }
    EXPECT_EQ(boundedDraw(gen, 9, 9), 9);
}

TEST(Backoff, BoundedDrawCoversTheWholeRangeAndNothingElse) {
    std::mt19937 gen(99);
    std::set<std::int32_t> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::int32_t v = boundedDraw(gen, 0, 10);
        ASSERT_GE(v, 0);
        ASSERT_LE(v, 10);
        seen.insert(v);
    }
    EXPECT_EQ(seen.size(), 11u);
    // The same seed gives the same sequence: the draw consumes the generator
    // deterministically.
    std::mt19937 a(5);
    std::mt19937 b(5);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(boundedDraw(a, 0, 60), boundedDraw(b, 0, 60));
    }
}

}  // namespace
}  // namespace ndpx
