// mqttConfig over a real store: range rules, the defaults list, writers, the
// derived readers, and live-change reactions.

#include "config/mqttConfig.h"
#include "support/TestRegistry.h"

#include <gtest/gtest.h>

#include <condition_variable>

namespace ndpx {
namespace {

using test::kNodeManagerKey;
using test::TestRegistry;

class MqttConfigTest : public ::testing::Test {
protected:
    void set(const std::string& name, const std::string& value) {
        reg_.setString(kNodeManagerKey, name, value);
    }
    auto stored(const char* name) { return reg_.store().get(kNodeManagerKey, name).value(); }
    TestRegistry reg_;
    mqttConfig cfg_{reg_.shared()};
};

TEST_F(MqttConfigTest, DefaultsApplyAndOutOfRangeValuesFallBackToThemWithALine) {
    EXPECT_EQ(cfg_.getUnwantedSessionFields(),
              (std::vector<std::wstring>{L"APPIDHISTORY", L"BROKERINGENDPOINTID", L"GROUPSIDS",
                                         L"HOSTPODID"}));
    EXPECT_TRUE(cfg_.getSendWhileDisconnected());
    EXPECT_FALSE(cfg_.getCleanStart());
    EXPECT_EQ(cfg_.getLWTMessage(), L"ERROR");

    set("mqtt_ReconnectIntervalMin", "4");
    EXPECT_EQ(cfg_.getReconnectIntervalMin(), 5);
    EXPECT_TRUE(reg_.log().contains(
        "mqttConfig::getIntInRange(): Registry setting mqtt_ReconnectIntervalMin out of range, "
        "returning default 5"));
    set("mqtt_ReconnectIntervalMin", "60");
    EXPECT_EQ(cfg_.getReconnectIntervalMin(), 60);

    set("mqtt_KeepAliveInterval", "-1");  // negative: out of range by the unsigned test
    EXPECT_EQ(cfg_.getKeepAliveInterval(), 30);
    set("mqtt_StartupMaxWaitInterval", "3600");
    EXPECT_EQ(cfg_.getStartupMaxWaitInterval(), 3600);
    set("mqtt_StartupMaxWaitInterval", "3601");
    EXPECT_EQ(cfg_.getStartupMaxWaitInterval(), 3600);
    set("mqtt_DuplicateMsgInterval", "601");
    EXPECT_EQ(cfg_.getDuplicateMsgInterval(), 300);
    set("mqtt_DuplicateMsgTimerInterval", "10");
    EXPECT_EQ(cfg_.getDuplicateMsgTimerInterval(), 10000);  // read in milliseconds

    // The hub time-out is outside the defaults list: absent it is the HTTPS
    // client's own budget, not the minimum.
    EXPECT_EQ(cfg_.getHubRequestTimeout(), 150);
    set("mqtt_HubRequestTimeout", "10");
    EXPECT_EQ(cfg_.getHubRequestTimeout(), 10);
    set("mqtt_HubRequestTimeout", "9");
    EXPECT_EQ(cfg_.getHubRequestTimeout(), 150);

    // A name with no entry at all yields the minimum, not a default.
    EXPECT_EQ(cfg_.getIntInRange(L"NotASetting", 7, 9), 7);
    EXPECT_TRUE(reg_.log().contains(
        "mqttConfig::getIntInRange(): Registry setting NotASetting not defined, returning 7"));
}

TEST_F(MqttConfigTest, NumbersBeyond32BitsAndTextsThatAreNoNumberAreOutOfRange) {
    // 2^32 + 100 and -2^32 + 100 would read as an in-range 100 if cut to 32 bits.
    for (const char* text : {"4294967396", "-4294967196", "100s", "1e2", "+-100", ""}) {
        set("mqtt_ReconnectIntervalMax", text);
        EXPECT_EQ(cfg_.getReconnectIntervalMax(), 600) << text;
    }
    EXPECT_EQ(reg_.log().count("mqttConfig::getIntInRange(): Registry setting "
                               "mqtt_ReconnectIntervalMax out of range, returning default 600"),
              6u);
    set("mqtt_KeepAliveInterval", "none");  // not 0, which is in range
    EXPECT_EQ(cfg_.getKeepAliveInterval(), 30);
    set("mqtt_ReconnectIntervalMax", "+1800");
    EXPECT_EQ(cfg_.getReconnectIntervalMax(), 1800);

    // The readers outside the table follow the same rule.
    set("mqtt_HubRequestTimeout", "20 seconds");
    EXPECT_EQ(cfg_.getHubRequestTimeout(), 150);
    reg_.setString("HKLM\\SOFTWARE\\Brasswick, Inc.\\NimbrelComposer\\ga\\AgentIntegration",
                   "CustomizationState", "4294967300");  // 2^32 + 4 is not "completed"
    EXPECT_FALSE(cfg_.isCustomizationFinished());
}

TEST_F(MqttConfigTest, MigrationStatusIsStoredAsDwordAndMutesTheOtherTransport) {
    EXPECT_EQ(cfg_.getMigrationStatus(), 0);
    EXPECT_FALSE(cfg_.isMigrationActive());
    EXPECT_FALSE(cfg_.isOtherTransportActive());
    set("MS Transport", "JMS");
    EXPECT_TRUE(cfg_.isOtherTransportActive());
    cfg_.setMigrationStatus(2);
    EXPECT_FALSE(cfg_.isOtherTransportActive());
    cfg_.setMigrationStatus(7);
    EXPECT_EQ(cfg_.getMigrationStatus(), 7);
    EXPECT_TRUE(cfg_.isMigrationActive());
    EXPECT_TRUE(reg_.log().contains(
        "mqttConfig::setMigrationStatus(): Set migration status to bootstrapfailed"));
    EXPECT_EQ(stored("mqtt_MigrationStatus").type, platform::SettingValue::Type::Dword);
    cfg_.setMigrationStatus(9);
    EXPECT_TRUE(cfg_.isOtherTransportActive());
    set("MS Transport", "mqtt");
    EXPECT_FALSE(cfg_.isOtherTransportActive());
}

TEST_F(MqttConfigTest, ListsAndFlagsAreStoredAsText) {
    cfg_.setUnwantedFields({});
    EXPECT_EQ(stored("mqtt_UnwantedFields").text, "");
    EXPECT_TRUE(cfg_.getUnwantedFields().empty());
    cfg_.setUnwantedFields({L"A", L"B"});
    EXPECT_EQ(stored("mqtt_UnwantedFields").text, "A,B");
    EXPECT_EQ(cfg_.getUnwantedFields(), (std::vector<std::wstring>{L"A", L"B"}));
    cfg_.setPaired(true);
    EXPECT_EQ(stored("mqtt_Paired").text, "true");
    EXPECT_EQ(joinList({L"", L"x", L"y"}), L"x,y");  // an empty first element adds no separator
}

TEST_F(MqttConfigTest, LiveChangesReachTheirHandlers) {
    std::mutex m;
    std::condition_variable cv;
    int restarts = 0;
    int refreshes = 0;
    cfg_.setLiveChangeHandlers({[&] {
                                    std::lock_guard lock(m);
                                    ++restarts;
                                    cv.notify_all();
                                },
                                [&](bool) {
                                    std::lock_guard lock(m);
                                    ++refreshes;
                                    cv.notify_all();
                                },
                                nullptr});
    std::string error;
    auto other = platform::openSqliteSettingsStore(
        (reg_.root() / "var/lib/Brasswick/registry.sqlite").string(), error);
    ASSERT_TRUE(other) << error;
    other->set(kNodeManagerKey, "AsyncSessionSeconds", platform::SettingValue::ofDword(90));
    other->set(kNodeManagerKey, "mqtt_TriggerCertRefresh", platform::SettingValue::ofString("1"));
    std::unique_lock lock(m);
    EXPECT_TRUE(cv.wait_for(lock, std::chrono::seconds(10),
                            [&] { return restarts == 1 && refreshes == 1; }));
}

}  // namespace
}  // namespace ndpx
