// The zone setter against an in-memory zone database and machine: the
// offset's quirks, the key and "Std" look-ups, and the dynamic way with the
// classic one as fall-back.

#include "timezone/SystemTimeZone.h"

#include <mfw/log.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ndpx {
namespace {

struct FakeDatabase : ZoneDatabase {
    struct Entry {
        std::string key, std;
        std::optional<ZoneRules> rules = ZoneRules{};
    };
    std::vector<Entry> entries;
    std::set<std::size_t> unlisted;    // enumeration fails at these indexes
    std::set<std::string> unreadable;  // listed, but the key cannot be opened
    std::set<std::string> withoutStd;

    const Entry* find(const std::string& key) const {
        for (const auto& e : entries) {
            if (e.key == key && !unreadable.count(key)) {
                return &e;
            }
        }
        return nullptr;
    }
    std::string location() const override { return "zones"; }
    bool isOpen() const override { return true; }
    std::optional<std::size_t> keyCount() const override { return entries.size(); }
    std::optional<std::string> keyName(std::size_t i) const override {
        if (unlisted.count(i)) {
            return std::nullopt;
        }
        return entries.at(i).key;
    }
    bool hasKey(const std::string& key) const override { return find(key) != nullptr; }
    std::optional<std::string> text(const std::string& key,
                                    const std::string& value) const override {
        if (value == "Dlt") {
            return key + " (daylight)";
        }
        if (withoutStd.count(key)) {
            return std::nullopt;
        }
        return find(key)->std;
    }
    std::optional<ZoneRules> rules(const std::string& key) const override {
        return find(key)->rules;
    }
};

struct FakeSystem : ZoneSystem {
    bool dynamic = true, dynamicOk = true, classicOk = true;
    std::optional<int> bias = 0;
    std::vector<std::pair<std::string, ZoneSetting>> applied;  // "dynamic" or "classic"

    bool hasDynamicZones() const override { return dynamic; }
    std::optional<int> currentBias(std::string& error) const override {
        error = "no zone";
        return bias;
    }
    bool setDynamic(const ZoneSetting& zone, std::string& error) override {
        applied.emplace_back("dynamic", zone);
        error = "denied";
        return dynamicOk;
    }
    bool setClassic(const ZoneSetting& zone, std::string& error) override {
        applied.emplace_back("classic", zone);
        error = "denied";
        return classicOk;
    }
};

ZoneRules berlin() {
    ZoneRules r;
    r.bias = -60;
    r.daylightBias = -60;
    r.standardDate = {0, 10, 0, 5, 3, 0, 0, 0};
    r.daylightDate = {0, 3, 0, 5, 2, 0, 0, 0};
    return r;
}

class SystemTimeZoneTest : public testing::Test {
protected:
    void SetUp() override {
        CORE::setLogLevel(CORE::kLogVerbose);
        CORE::addLogSink(log_);
        auto db = std::make_unique<FakeDatabase>();
        auto sys = std::make_unique<FakeSystem>();
        db_ = db.get();
        sys_ = sys.get();
        zone_ = std::make_unique<SystemTimeZone>(std::move(db), std::move(sys));
    }
    void TearDown() override { CORE::removeLogSink(log_); }
    bool logged(const std::string& line) const { return log_->contains(line); }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    FakeDatabase* db_ = nullptr;
    FakeSystem* sys_ = nullptr;
    std::unique_ptr<SystemTimeZone> zone_;
};

TEST_F(SystemTimeZoneTest, OffsetKeepsItsQuirks) {
    const struct {
        const char* offset;
        std::optional<int> bias;
        const char* line;
    } cases[] = {
        {" -5:30\r\n", 330, "Hour = 5 minute = 30"},
        {"+5:30", -330, "The client bias is = -330"},  // the plus sign reads as part of the hours
        {"5:-45", -45, "Hour = 0 minute = -45"},       // a '-' anywhere costs the first character
        {"5", std::nullopt, "Invalid input 5 for tzOffset."},
        {"1:2:3", std::nullopt, "Invalid input 1:2:3 for tzOffset."},
        {"-0:00", std::nullopt, "Invalid input, timeOffsetMin = 0."},
        {"abc:def", std::nullopt, "Invalid input, timeOffsetMin = 0."},
        {"99999999999:0", std::nullopt, "Invalid input 99999999999:0 for tzOffset."},
    };
    for (const auto& c : cases) {
        sys_->applied.clear();
        log_->clear();
        EXPECT_EQ(zone_->SetTimeZone("", false, c.offset), c.bias.has_value()) << c.offset;
        EXPECT_TRUE(logged(c.line)) << c.offset;
        ASSERT_EQ(sys_->applied.size(), c.bias ? 1u : 0u) << c.offset;
        if (c.bias) {
            const ZoneSetting& s = sys_->applied[0].second;
            EXPECT_EQ(s.rules.bias, *c.bias);
            EXPECT_TRUE(s.keyName.empty() && s.standardName.empty() && !s.daylightDisabled);
        }
    }
}

TEST_F(SystemTimeZoneTest, OffsetOfTheZoneInForceIsReportedAsFailure) {
    sys_->bias = 330;
    EXPECT_FALSE(zone_->SetTimeZone("", false, "-5:30"));
    EXPECT_TRUE(
        logged("SystemTimeZone::GetTzOffset(): No need to update the time, with offset -5:30"));
    sys_->bias.reset();
    EXPECT_FALSE(zone_->SetTimeZone("", false, "-5:30"));
    EXPECT_TRUE(logged("GetTzOffset(): GetTimeZoneInformation failed, error = no zone"));
    EXPECT_TRUE(sys_->applied.empty());
    EXPECT_FALSE(zone_->SetTimeZone("", true, ""));
    EXPECT_TRUE(
        logged("SystemTimeZone::SetTimeZone(): tzTimeZoneName & tzTimezoneOffset are empty"));
}

TEST_F(SystemTimeZoneTest, KeyNameWinsAndDisabledDaylightDropsTheDates) {
    db_->entries = {{"W. Europe Standard Time", "W. Europe Standard Time", berlin()}};
    ASSERT_TRUE(zone_->SetTimeZone("W. Europe Standard Time", false, "-5:30"));
    ASSERT_TRUE(zone_->SetTimeZone("W. Europe Standard Time", true, ""));
    ASSERT_EQ(sys_->applied.size(), 2u);
    const ZoneSetting& kept = sys_->applied[0].second;
    EXPECT_EQ(kept.keyName, "W. Europe Standard Time");
    EXPECT_EQ(kept.daylightName, "W. Europe Standard Time (dayligh");  // 32 characters at most
    EXPECT_EQ(kept.rules.standardDate.month, 10);
    const ZoneSetting& disabled = sys_->applied[1].second;
    EXPECT_TRUE(disabled.daylightDisabled);
    EXPECT_EQ(disabled.rules.bias, -60);
    EXPECT_EQ(disabled.rules.standardDate.month, 0);
    EXPECT_EQ(disabled.rules.daylightDate.month, 0);
    EXPECT_TRUE(
        logged("SystemTimeZone::CallSetDynamicTimeZoneInfoApi(): "
               "SetDynamicTimeZoneInformation succeeded, Timezone set to W. Europe "
               "Standard Time"));
    EXPECT_TRUE(
        logged("Set StandardDate & DaylightDate          to NULL as DaylightSaving is "
               "disabled."));
}

TEST_F(SystemTimeZoneTest, StdMatchTakesTheFirstReadableKeyInOrder) {
    db_->entries = {{"A", "Pacific"}, {"B", "Pacific"},           {"C", "Pacific"},
                    {"D", "Pacific"}, {"E", "Pacific", berlin()}, {"F", "Pacific"}};
    db_->unlisted = {0};
    db_->unreadable = {"B"};
    db_->withoutStd = {"C"};
    db_->entries[3].std = "Atlantic";
    ASSERT_TRUE(zone_->SetTimeZone("Pacific", false, ""));
    EXPECT_EQ(sys_->applied.at(0).second.keyName, "E");
    EXPECT_EQ(sys_->applied[0].second.standardName, "Pacific");
    for (const char* line :
         {"timezone Pacific not found, looking for any std match",
          "Unable to enumerate subkey number 0 for: zones.", "Unable to read timezone subkey: B",
          "Unable to read timezone subkey \"Std\" value for: C",
          "Found matching standard timezone: E"}) {
        EXPECT_TRUE(logged(line)) << line;
    }
    EXPECT_FALSE(zone_->SetTimeZone("Indian", false, ""));
    EXPECT_TRUE(logged("No match found for std for Indian in registry."));
    db_->entries[0].rules.reset();
    db_->unlisted.clear();
    EXPECT_FALSE(zone_->SetTimeZone("A", false, ""));
    EXPECT_TRUE(logged("Timezone TZI not available in registry for A."));
}

TEST_F(SystemTimeZoneTest, ClassicWayIsTheFallBackAndKeepsTheDates) {
    db_->entries = {{"W. Europe Standard Time", "W. Europe Standard Time", berlin()}};
    sys_->dynamicOk = false;
    EXPECT_TRUE(zone_->SetTimeZone("W. Europe Standard Time", true, ""));
    ASSERT_EQ(sys_->applied.size(), 2u);
    EXPECT_EQ(sys_->applied[1].first, "classic");
    EXPECT_EQ(sys_->applied[1].second.rules.standardDate.month, 10);
    EXPECT_TRUE(sys_->applied[1].second.keyName.empty());
    EXPECT_TRUE(logged("SetDynamicTimeZoneInformation Api failed, error = denied"));
    EXPECT_TRUE(
        logged("SystemTimeZone::CallSetTimeZoneInfoApi(): SetTimeZoneInformation Api Succeeded"));

    sys_->applied.clear();
    sys_->dynamic = false;
    sys_->classicOk = false;
    EXPECT_FALSE(zone_->SetTimeZone("", false, "5:45"));
    ASSERT_EQ(sys_->applied.size(), 1u);
    EXPECT_EQ(sys_->applied[0].first, "classic");
    EXPECT_TRUE(logged("SetTimeZoneInformation api failed, error = denied"));
}

}  // namespace
}  // namespace ndpx
