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
    TestRegistry reg_;
    mqttConfig cfg_{reg_.shared()};
};

TEST_F(MqttConfigTest, OutOfRangeValuesFallBackToTheDefaultAndAreLogged) {
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

TEST_F(MqttConfigTest, DefaultsListFollowsTheTableOrder) {
    const auto list = mqttConfig::defaultsList();
    ASSERT_EQ(list.size(), 58u);
    EXPECT_EQ(list.front(), L"AsyncSessionSeconds=150");
    EXPECT_EQ(list.back(), L"mqtt_TriggerCertRefresh=0");
    EXPECT_EQ(cfg_.getUnwantedSessionFields(),
              (std::vector<std::wstring>{L"APPIDHISTORY", L"BROKERINGENDPOINTID", L"GROUPSIDS",
                                         L"HOSTPODID"}));
    EXPECT_TRUE(cfg_.getSendWhileDisconnected());
    EXPECT_FALSE(cfg_.getCleanStart());
    EXPECT_EQ(cfg_.getLWTMessage(), L"ERROR");
    EXPECT_EQ(cfg_.getAzureADJoinQueryInterval(), 60);
}

TEST_F(MqttConfigTest, MigrationStatusReadsZeroUntilWrittenThenAtOnce) {
    EXPECT_EQ(cfg_.getMigrationStatus(), 0);
    EXPECT_FALSE(cfg_.isMigrationActive());
    cfg_.setMigrationStatus(7);
    EXPECT_EQ(cfg_.getMigrationStatus(), 7);
    EXPECT_TRUE(cfg_.isMigrationActive());
    EXPECT_TRUE(reg_.log().contains(
        "mqttConfig::setMigrationStatus(): Set migration status to bootstrapfailed"));
    const auto stored = reg_.store().get(kNodeManagerKey, "mqtt_MigrationStatus");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->type, platform::SettingValue::Type::Dword);
}

TEST_F(MqttConfigTest, OtherTransportIsActiveOnlyOutsideAMigration) {
    EXPECT_FALSE(cfg_.isOtherTransportActive());
    set("MS Transport", "JMS");
    EXPECT_TRUE(cfg_.isOtherTransportActive());
    cfg_.setMigrationStatus(2);
    EXPECT_FALSE(cfg_.isOtherTransportActive());
    cfg_.setMigrationStatus(9);
    EXPECT_TRUE(cfg_.isOtherTransportActive());
    set("MS Transport", "mqtt");
    EXPECT_FALSE(cfg_.isOtherTransportActive());
}

TEST_F(MqttConfigTest, WritersStoreUnderNodeManagerAndReadersSeeThem) {
    cfg_.setUnwantedFields({});
    EXPECT_EQ(reg_.store().get(kNodeManagerKey, "mqtt_UnwantedFields")->text, "");
    EXPECT_TRUE(cfg_.getUnwantedFields().empty());
    cfg_.setUnwantedFields({L"A", L"B"});
    EXPECT_EQ(reg_.store().get(kNodeManagerKey, "mqtt_UnwantedFields")->text, "A,B");
    cfg_.setAgentIdentityPend("E1ST_VM9");
    EXPECT_EQ(cfg_.getAgentIdentityPend(), "E1ST_VM9");
    cfg_.setPaired(true);
    EXPECT_EQ(reg_.store().get(kNodeManagerKey, "mqtt_Paired")->text, "true");
    cfg_.setMonitoringEndpoint("edge.example:443");
    EXPECT_EQ(cfg_.getMonitoringEndpoint(), "edge.example:443");
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
