// The duplicate command filter in virtual time: ageing, the exact retention
// boundary, and the refresh after an outage.

#include "services/DuplicateMessageHandler.h"
#include "support/ManualTimeSource.h"

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;
using test::ManualTimeSource;

class DuplicateFilterTest : public ::testing::Test {
protected:
    // Advances by one timer period and waits until the tick has run.
    void tick() {
        ASSERT_TRUE(clock_.awaitWaiters(1));
        clock_.advance(60s);
        ASSERT_TRUE(clock_.awaitWaiters(1));
    }
    ManualTimeSource clock_;
};

TEST_F(DuplicateFilterTest, IdsAgeOutAtExactlyOneRetentionAndCaseMatters) {
    DuplicateMessageHandler filter(300, 60000, clock_);
    filter.SetConnected(true);
    filter.Record(L"cmd-1");
    EXPECT_TRUE(filter.IsDuplicate(L"cmd-1"));
    EXPECT_FALSE(filter.IsDuplicate(L"CMD-1"));
    for (int i = 0; i < 4; ++i) {
        tick();  // 240 s old: kept
    }
    EXPECT_TRUE(filter.IsDuplicate(L"cmd-1"));
    tick();  // exactly 300 s old: removed
    EXPECT_FALSE(filter.IsDuplicate(L"cmd-1"));
}

TEST_F(DuplicateFilterTest, NothingAgesDuringAnOutageAndTheReconnectRestartsTheClock) {
    DuplicateMessageHandler filter(120, 60000, clock_);
    filter.SetConnected(true);
    filter.Record(L"before-outage");
    filter.SetConnected(false);
    for (int i = 0; i < 10; ++i) {
        tick();  // ten minutes down, far beyond the retention
    }
    EXPECT_TRUE(filter.IsDuplicate(L"before-outage"));
    filter.SetConnected(true);
    tick();  // first tick after the reconnect: stamps refreshed, nothing removed
    EXPECT_TRUE(filter.IsDuplicate(L"before-outage"));
    tick();  // 60 s after the refresh
    EXPECT_TRUE(filter.IsDuplicate(L"before-outage"));
    tick();  // 120 s after the refresh: gone
    EXPECT_FALSE(filter.IsDuplicate(L"before-outage"));
}

TEST_F(DuplicateFilterTest, ZeroRetentionSwitchesTheFilterOff) {
    DuplicateMessageHandler filter(0, 60000, clock_);
    EXPECT_FALSE(filter.IsEnabled());
    EXPECT_FALSE(filter.running());
    filter.Record(L"x");
    EXPECT_FALSE(filter.IsDuplicate(L"x"));
    EXPECT_EQ(filter.size(), 0u);
}

TEST_F(DuplicateFilterTest, RecordingAgainRestartsAnIdsRetentionAndClearEmpties) {
    DuplicateMessageHandler filter(120, 60000, clock_);
    filter.SetConnected(true);
    filter.Record(L"a");
    tick();
    filter.Record(L"a");  // re-recorded after 60 s
    tick();               // 120 s after the first record, 60 s after the second
    EXPECT_TRUE(filter.IsDuplicate(L"a"));
    filter.Clear();
    EXPECT_EQ(filter.size(), 0u);
}

}  // namespace
}  // namespace ndpx
