// The zone database derived from ICU, and the zone setter on a machine image
// in a temporary root: named zones, whole-hour zones without daylight saving
// and a compiled zone of an odd offset, checked with the C library's reader.

#include "timezone/IcuZoneDatabase.h"
#include "timezone/SystemTimeZone.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace ndpx {
namespace {

namespace fs = std::filesystem;

TEST(IcuZoneDatabaseTest, GivesKeysNamesAndRules) {
    const IcuZoneDatabase db;
    ASSERT_TRUE(db.isOpen());
    ASSERT_GT(db.keyCount().value_or(0), 100u);
    EXPECT_LT(*db.keyName(0), *db.keyName(1));
    EXPECT_TRUE(db.hasKey("india standard time"));
    EXPECT_FALSE(db.hasKey("Atlantis Standard Time"));
    EXPECT_EQ(db.text("India Standard Time", "Std"), "India Standard Time");
    EXPECT_EQ(db.text("India Standard Time", "Dlt"), "India Daylight Time");

    const auto india = db.rules("India Standard Time");
    ASSERT_TRUE(india);
    EXPECT_EQ(india->bias, -330);
    EXPECT_EQ(india->daylightDate.month, 0);

    const auto berlin = db.rules("W. Europe Standard Time");
    ASSERT_TRUE(berlin);
    EXPECT_EQ(berlin->bias, -60);
    EXPECT_EQ(berlin->daylightBias, -60);
    const ZoneDate& end = berlin->standardDate;    // last Sunday of October, 03:00
    const ZoneDate& start = berlin->daylightDate;  // last Sunday of March, 02:00
    EXPECT_EQ((std::vector<int>{end.month, end.dayOfWeek, end.day, end.hour, end.minute}),
              (std::vector<int>{10, 0, 5, 3, 0}));
    EXPECT_EQ((std::vector<int>{start.month, start.dayOfWeek, start.day, start.hour, start.minute}),
              (std::vector<int>{3, 0, 5, 2, 0}));
}

// The UTC offset, in seconds, that the C library reads from a zone file.
long offsetOfZoneFile(const fs::path& file) {
    const char* saved = ::getenv("TZ");
    const std::string before = saved ? saved : "";
    ::setenv("TZ", (":" + file.string()).c_str(), 1);
    ::tzset();
    const time_t now = ::time(nullptr);
    struct tm local {};
    ::localtime_r(&now, &local);
    saved ? ::setenv("TZ", before.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
    return local.tm_gmtoff;
}

std::string fileText(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(LinuxZoneTest, LinksTheZoneInARoot) {
    const test::TempDir root;
    const auto zone = makeSystemTimeZone(root.path(), root.path() / "state");
    const fs::path localtime = root.path() / "etc/localtime";

    ASSERT_TRUE(zone->SetTimeZone("India Standard Time", false, ""));
    const std::string india = fs::read_symlink(localtime).string();
    EXPECT_TRUE(india == "/usr/share/zoneinfo/Asia/Kolkata" ||
                india == "/usr/share/zoneinfo/Asia/Calcutta")
        << india;
    EXPECT_EQ(fileText(root.path() / "etc/timezone"), india.substr(20) + "\n");

    ASSERT_TRUE(zone->SetTimeZone("W. Europe Standard Time", true, ""));
    EXPECT_EQ(fs::read_symlink(localtime), "/usr/share/zoneinfo/Etc/GMT-1");

    ASSERT_TRUE(zone->SetTimeZone("", false, "-5:30"));
    const fs::path compiled = fs::read_symlink(localtime);
    EXPECT_EQ(compiled.parent_path(), root.path() / "state");
    EXPECT_EQ(offsetOfZoneFile(compiled), -(5 * 3600 + 30 * 60));
    EXPECT_FALSE(fs::exists(root.path() / "etc/timezone"));
    // The bias in force is read back from the compiled file.
    EXPECT_FALSE(zone->SetTimeZone("", false, "-5:30"));
    EXPECT_TRUE(zone->SetTimeZone("", false, "+5:45"));
    EXPECT_EQ(offsetOfZoneFile(fs::read_symlink(localtime)), 5 * 3600 + 45 * 60);
}

}  // namespace
}  // namespace ndpx
