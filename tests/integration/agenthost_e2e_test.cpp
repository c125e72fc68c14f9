// agenthost with ndpx_mqtt.so, driven as an operator would: settings through
// regctl, stop through SIGTERM, observations through the log and metrics.

#include "support/JournalSocket.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kNodeManager = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
const std::string kProduct = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane";

class AgentHostTest : public ::testing::Test {
protected:
    void regctlSet(const std::string& key, const std::string& name, const std::string& value,
                   const std::string& type = "string") {
        const auto r = run({REGCTL_PATH, "--root", root_.path().string(), "set", key, name, value,
                            "--type", type});
        ASSERT_EQ(r.status, 0) << r.output;
    }

    std::unique_ptr<Process> startHost() {
        return std::make_unique<Process>(
            std::vector<std::string>{AGENTHOST_PATH, "--root", root_.path().string(), "--plugin",
                                     MODULE_PATH, "--log-level", "0", "--metrics-interval", "1"});
    }

    static void stopHost(Process& host) {
        host.signal(SIGTERM);
        const auto status = host.wait(std::chrono::seconds(15));
        ASSERT_TRUE(status.has_value()) << "agenthost did not stop\n" << host.output();
        EXPECT_EQ(*status, 0) << host.output();
    }

    TempDir root_;
};

TEST_F(AgentHostTest, InstallsInOrderAndStopsCleanlyOnSigterm) {
    // Started as a notifying service with a 200 ms watchdog; the service
    // manager's messages have the journal's "NAME=value" lines.
    JournalSocket manager(root_.path() / "notify");
    ASSERT_TRUE(manager.bound());
    ::setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
    ::setenv("WATCHDOG_USEC", "200000", 1);
    auto host = startHost();
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    using Told = JournalSocket::Entry;
    EXPECT_EQ(manager.next(20s), (Told{{"READY", "1"}, {"STATUS", "Running 1 plug-ins"}}));
    EXPECT_EQ(manager.next(20s), (Told{{"WATCHDOG", "1"}}));
    EXPECT_EQ(manager.next(20s), (Told{{"WATCHDOG", "1"}}));
    ASSERT_TRUE(host->waitForLine("MqttManager::Start(): MQTT Start successful."))
        << host->output();
    ASSERT_TRUE(host->waitForLine("MessageFrameWork: worker MQTT added")) << host->output();

    const std::string out = host->output();
    const char* const sequence[] = {
        "MQTTPlugin::pluginServiceInstall(): Waiting for DesktopManager queue",
        "MQTTPlugin::pluginServiceInstall(): Registered Message transport: ",
        "MQTTPlugin::pluginServiceInstall(): Migration message received: false",
        "MQTTInstall(): Running in Non-Fips mode = (mode:0)",
        "MqttManager::SetState(): State: MQTT_STATE_INITIALIZING",
        "MqttManager::Start(): MQTT Start successful.",
        "MQTTService::start(): setup MQTT queue",
    };
    std::size_t at = 0;
    for (const char* line : sequence) {
        const auto found = out.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << "\n" << out;
        at = found;
    }
    EXPECT_TRUE(host->waitForLine("MqttManager::RetrieveRootFolderPath(): Root folder is "));

    stopHost(*host);
    std::optional<Told> told;
    do {
        told = manager.next(1s);
    } while (told == Told{{"WATCHDOG", "1"}});
    EXPECT_EQ(told, (Told{{"STOPPING", "1"}}));
    const std::string end = host->output();
    EXPECT_NE(end.find("MQTTService::stop(): Unregistering with DesktopManager queue"),
              std::string::npos);
    EXPECT_NE(end.find("DesktopManager: NotifyQueueRemove MQTT"), std::string::npos);
    EXPECT_NE(end.find("Registration thread is now exiting."), std::string::npos);
    EXPECT_NE(end.find("MqttManager::Stop(): MQTT Stop successful."), std::string::npos);
    EXPECT_NE(end.find("mfwPluginDll: all threads gone"), std::string::npos);
}

TEST_F(AgentHostTest, AnotherRegisteredTransportUnloadsTheModule) {
    regctlSet(kNodeManager, "MS Transport", "JMS");
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("MQTTPlugin::pluginServiceInstall(): MQTT not required"))
        << host->output();
    ASSERT_TRUE(host->waitForLine("PluginLoader: unloaded ndpx_mqtt")) << host->output();
    EXPECT_EQ(host->countLines("MQTT Start successful"), 0u);
    EXPECT_EQ(host->countLines("mfwPluginDll: all threads gone"), 1u);
    stopHost(*host);
}

TEST_F(AgentHostTest, MigrationMessageKeepsTheModuleDespiteAnotherTransport) {
    regctlSet(kNodeManager, "MS Transport", "JMS");
    regctlSet(kNodeManager, "mqtt_MigrationMsgRcvd", "true");
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("MqttManager::Start(): MQTT Start successful."))
        << host->output();
    EXPECT_EQ(host->countLines("MQTT not required"), 0u);
    EXPECT_EQ(host->countLines("Migration message received: true"), 1u);
    stopHost(*host);
}

TEST_F(AgentHostTest, FipsRequestWithoutProviderRunsInDefaultMode) {
    regctlSet(kProduct, "FipsMode", "1");
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("MqttManager::Start(): MQTT Start successful."));
    EXPECT_EQ(host->countLines("MQTTInstall(): Fips mode is enabled in the registry"), 1u);
    EXPECT_EQ(host->countLines("MQTTInstall(): Running in Non-Fips mode = (mode:0)"), 1u);
    stopHost(*host);
}

TEST_F(AgentHostTest, SettingChangedWithRegctlReachesTheRunningModule) {
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("MqttManager::Start(): MQTT Start successful."));
    regctlSet(kNodeManager, "AsyncSessionSeconds", "120", "dword");
    EXPECT_TRUE(host->waitForLine("mqttConfig::changed(): AsyncSessionSeconds changed to 120",
                                  std::chrono::seconds(5)))
        << host->output();
    stopHost(*host);
}

TEST_F(AgentHostTest, LogGoesToTheJournalWithItsFieldsAndFollowsTheLogLevelSetting) {
    JournalSocket journal(root_.path() / "journal");
    ASSERT_TRUE(journal.bound());
    Process host({AGENTHOST_PATH, "--root", root_.path().string(), "--plugin", MODULE_PATH,
                  "--log-target", "journal", "--journal-socket", journal.path().string()});
    // The first entry whose message begins with `text`, within 20 s.
    const auto entryStarting = [&](const std::string& text) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (std::chrono::steady_clock::now() < end) {
            auto entry = journal.next(1s);
            if (entry && (*entry)["MESSAGE"].rfind(text, 0) == 0) {
                return *entry;
            }
        }
        return JournalSocket::Entry{{"MESSAGE", "<no entry starting " + text + ">"}};
    };
    auto started = entryStarting("MqttManager::Start(): MQTT Start successful.");
    EXPECT_EQ(started["PRIORITY"], "6");
    EXPECT_EQ(started["SYSLOG_IDENTIFIER"], "agenthost");
    EXPECT_EQ(started["NDPX_MODULE"], "ndpx_mqtt");
    EXPECT_EQ(started["NDPX_CLASS"], "MqttManager");
    EXPECT_EQ(started["CODE_FUNC"], "MqttManager::Start");
    EXPECT_EQ(started.count("NDPX_DESKTOP"), 0u);  // not paired

    const std::string hostKey = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Agent Host";
    regctlSet(kNodeManager, "mqtt_AgentIdentity", "E1ST_VM9");
    regctlSet(hostKey, "LogLevel", "3", "dword");
    auto changed = entryStarting("agenthost: log level now 3 (from the settings store)");
    EXPECT_EQ(changed["PRIORITY"], "4");
    EXPECT_EQ(changed["NDPX_DESKTOP"], "E1ST_VM9");
    regctlSet(hostKey, "LogLevel", "verbose");
    auto refused = entryStarting("agenthost: HKLM");
    EXPECT_EQ(
        refused["MESSAGE"],
        "agenthost: " + hostKey + "\\LogLevel must be a DWORD from 0 to 4; the log level stays 3");
    EXPECT_EQ(refused["PRIORITY"], "3");

    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(15s), 0);
    // Nothing was written to stderr but what the journal did not take.
    EXPECT_EQ(host.output().find("MQTT Start successful"), std::string::npos) << host.output();
}

TEST_F(AgentHostTest, StateIsPublishedAsAMetric) {
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("MqttLmMonConsumer::DoSetMetricCallback(): state="));
    ASSERT_TRUE(host->waitForLine("Sent data to LmMonService. Key: MQTTMetrics"));
    std::ifstream in(root_.path() / "run/Brasswick/metrics.json");
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("\"MQTTMetrics\""), std::string::npos) << text.str();
    EXPECT_NE(text.str().find("MQTT_STATE_"), std::string::npos) << text.str();
    stopHost(*host);
}

TEST_F(AgentHostTest, WhatTheHostCreatesIsTheOwnersAloneButTheMetricsFiles) {
    namespace fs = std::filesystem;
    const fs::path root = root_.path();
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("Sent data to LmMonService. Key: MQTTMetrics"));
    // The folder the registration thread watches for provisioning data.
    ASSERT_TRUE(waitUntil([&] { return fs::exists(root / "AzureData"); }));
    stopHost(*host);

    // Monitoring tools read the metrics files, through the folders above them.
    const std::map<fs::path, unsigned> forOthers = {
        {root / "run", 0755},
        {root / "run/Brasswick", 0755},
        {root / "run/Brasswick/metrics.json", 0644},
        {root / "run/Brasswick/metrics.prom", 0644},
    };
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const auto mode = static_cast<unsigned>(entry.symlink_status().permissions());
        const auto it = forOthers.find(entry.path());
        const unsigned expected = it != forOthers.end() ? it->second : mode & 0700;
        EXPECT_EQ(mode, expected) << entry.path() << " has mode " << std::oct << mode;
    }
    EXPECT_TRUE(fs::exists(root / "var/lib/Brasswick/registry.sqlite"));
}

}  // namespace
}  // namespace ndpx::test
