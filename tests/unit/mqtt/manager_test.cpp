// The manager's state, start and stop, root folder and publishing refusals.

#include "mqtt/MqttManager.h"
#include "support/MqttManagerPeer.h"
#include "support/TestRegistry.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

namespace ndpx {
namespace {

using test::TestRegistry;

class ManagerTest : public ::testing::Test {
protected:
    TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    MqttManager manager_{[this] {
        MqttManagerDependencies d;
        d.config = [this] { return cfg_; };
        return d;
    }()};
};

TEST(MqttStateNames, KnownAndUnknownValues) {
    EXPECT_EQ(mqttStateName(MQTT_STATE_UNKNOWN), "MQTT_STATE_UNKNOWN");
    EXPECT_EQ(mqttStateName(MQTT_STATE_WAITING_CONFIG), "MQTT_STATE_WAITING_CONFIG");
    EXPECT_EQ(mqttStateName(MQTT_STATE_STOPPING), "MQTT_STATE_STOPPING");
    EXPECT_EQ(mqttStateName(42), "MQTT_STATE_42");
    EXPECT_EQ(mqttStateName(-1), "MQTT_STATE_-1");
}

TEST_F(ManagerTest, StartLogsInitializingThenReadsUnknownAndASecondStartChangesNothing) {
    ASSERT_TRUE(manager_.Start());
    EXPECT_TRUE(reg_.log().contains("MqttManager::SetState(): State: MQTT_STATE_INITIALIZING"));
    // Put back to UNKNOWN without a line: the next real state is logged.
    EXPECT_FALSE(reg_.log().contains("MqttManager::SetState(): State: MQTT_STATE_UNKNOWN"));
    manager_.SetState(MQTT_STATE_CONNECTING);
    reg_.log().clear();
    ASSERT_TRUE(manager_.Start());
    EXPECT_TRUE(reg_.log().contains("MqttManager::Start(): Already started"));
    EXPECT_EQ(manager_.GetState(), MQTT_STATE_CONNECTING);
    manager_.SetState(MQTT_STATE_CONNECTING);  // same state: no line
    EXPECT_EQ(reg_.log().count("MqttManager::SetState()"), 0u);
    ASSERT_TRUE(manager_.Stop());
}

TEST_F(ManagerTest, StopBeforeAnyConnectionRefusesTheStatusAndEndsTheThread) {
    ASSERT_TRUE(manager_.Start());
    ASSERT_TRUE(manager_.Stop());
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::DoPublishMessage(): Not publishing message, paired state is undetermined"));
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::RegistrationThreadProc(): Registration thread is now exiting."));
    EXPECT_TRUE(reg_.log().contains("MqttManager::Stop(): MQTT Stop successful."));
    EXPECT_EQ(manager_.GetState(), MQTT_STATE_STOPPING);
    EXPECT_FALSE(MqttManagerTestPeer(manager_).started());

    // After stop every publish is refused as stopping, and a new start works.
    int token = 0;
    EXPECT_FALSE(manager_.DoPublishMessage("t", "{}", token, 0, false));
    EXPECT_TRUE(
        reg_.log().contains("MqttManager::DoPublishMessage(): Not publishing message, stopping"));
    ASSERT_TRUE(manager_.Start());
    EXPECT_FALSE(MqttManagerTestPeer(manager_).stopping());
    ASSERT_TRUE(manager_.Stop());
}

TEST_F(ManagerTest, RootFolderIsCreatedPrivateAndAnExistingOneIsKept) {
    std::string path;
    ASSERT_EQ(manager_.RetrieveRootFolderPath(path), 1);
    EXPECT_EQ(path, (reg_.root() / "var/lib/Brasswick/Orvane/LmAgent").string());
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    ::chmod(path.c_str(), 0755);
    ASSERT_EQ(manager_.RetrieveRootFolderPath(path), 1);
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
}

TEST_F(ManagerTest, StatusMessageCountsAndOmitsEmptyDetails) {
    Json::Value first;
    Json::Value second;
    manager_.BuildStatusMessage(first, "NEED_ID", 1, "");
    manager_.BuildStatusMessage(second, "TEMPLATE_PARSE_ERROR", 1, "bad json");
    EXPECT_EQ(second["seqno"].asUInt(), first["seqno"].asUInt() + 1);
    EXPECT_FALSE(first.isMember("errMsg"));
    EXPECT_EQ(second["errMsg"].asString(), "bad json");
    EXPECT_FALSE(second.isMember("publicKey"));

    reg_.setString("HKLM\\Software\\Brasswick, Inc.\\AgentVersions", "Agent", "1.2.3");
    reg_.setString("HKLM\\Software\\Brasswick, Inc.\\AgentVersions\\Plugins", "mqtt", "0.1");
    Json::Value available;
    manager_.BuildStatusMessage(available, "AVAILABLE", 2, "dev-1");
    EXPECT_EQ(available["deviceId"].asString(), "dev-1");
    EXPECT_EQ(available["agentVersions"]["Agent"].asString(), "1.2.3");
    EXPECT_EQ(available["agentVersions"]["Plugins"]["mqtt"].asString(), "0.1");
    EXPECT_TRUE(available.isMember("publicKey"));
    EXPECT_TRUE(available.isMember("guid"));
}

}  // namespace
}  // namespace ndpx
