// The answered IDs come back after a restart for as long as the duplicate
// filter would remember them, whatever their text, and a line cut short by a
// kill costs nothing else.

#include "services/AnsweredCommandLog.h"
#include "support/ManualTimeSource.h"
#include "support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

namespace ndpx {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(AnsweredCommandLogTest, AnsweredIdsComeBackWithinTheRetentionAndACutLineIsSkipped) {
    test::ManualTimeSource time;
    test::TempDir dir;
    const auto file = dir.path() / "answered-commands";
    {
        AnsweredCommandLog log(300, time);
        EXPECT_TRUE(log.open(file).empty());
        log.record(L"old");
        time.advance(200s);
        log.record(L"cmd 1");
        log.record(L"two\nlines\t\x00e9");
    }
    std::ofstream(file, std::ios::app) << "1234 abc";  // killed mid-line

    time.advance(150s);  // "old" is 350 s old now
    AnsweredCommandLog restarted(300, time);
    EXPECT_THAT(restarted.open(file), ElementsAre(L"cmd 1", L"two\nlines\t\x00e9"));
    restarted.record(L"cmd 3");

    time.advance(299s);
    AnsweredCommandLog again(300, time);
    EXPECT_THAT(again.open(file), ElementsAre(L"cmd 3"));
}

}  // namespace
}  // namespace ndpx
