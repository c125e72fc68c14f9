// The jittered wait of the periodic threads: 75% to 100% of the interval,
// drawn from the whole of [0, 1).

#include "services/Jitter.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

TEST(Jitter, WaitsSpanThreeQuartersToAllOfTheInterval) {
    EXPECT_EQ(jitteredWait(8, 0.0), 6000ms);
    EXPECT_EQ(jitteredWait(8, 0.5), 7000ms);
    EXPECT_EQ(jitteredWait(8, 0.9999), 7999ms);
    std::mt19937 generator(7);
    double low = 1.0;
    double high = 0.0;
    for (int i = 0; i < 10000; ++i) {
        const double u = uniformDraw(generator);
        ASSERT_TRUE(u >= 0.0 && u < 1.0) << u;
        low = std::min(low, u);
        high = std::max(high, u);
    }
    EXPECT_LT(low, 0.01);
    EXPECT_GT(high, 0.99);
}

}  // namespace
}  // namespace ndpx
