// agenthost with ndpx_mqtt.so, driven as an operator would: settings through
// regctl, stop through SIGTERM, observations through the log and metrics.

#include "support/Process.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <platform/UniqueFd.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace ndpx::test {
namespace {

const std::string kNodeManager = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
const std::string kProduct = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane";

// Plays the service manager: the socket a started service is told to notify.
class NotifySocket {
public:
    explicit NotifySocket(const std::filesystem::path& path)
        : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.string().size() + 1);
        bound_ = ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    bool bound() const { return bound_; }

    // The next datagram, or "" when none comes within `limit`.
    std::string next(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        pollfd p{fd_.get(), POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) {
            return {};
        }
        char buffer[512] = {};
        const ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
    }

private:
    platform::UniqueFd fd_;
    bool bound_ = false;
};

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
    // Started as a notifying service with a 200 ms watchdog.
    NotifySocket manager(root_.path() / "notify");
    ASSERT_TRUE(manager.bound());
    ::setenv("NOTIFY_SOCKET", (root_.path() / "notify").c_str(), 1);
    ::setenv("WATCHDOG_USEC", "200000", 1);
    auto host = startHost();
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=Running 1 plug-ins");
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
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
    std::string told;
    do {
        told = manager.next(std::chrono::seconds(1));
    } while (told == "WATCHDOG=1");
    EXPECT_EQ(told, "STOPPING=1");
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

TEST_F(AgentHostTest, WhatTheHostCreatesIsTheOwnersAloneButTheMetricsFile) {
    namespace fs = std::filesystem;
    const fs::path root = root_.path();
    auto host = startHost();
    ASSERT_TRUE(host->waitForLine("Sent data to LmMonService. Key: MQTTMetrics"));
    // The folder the registration thread watches for provisioning data.
    ASSERT_TRUE(waitUntil([&] { return fs::exists(root / "AzureData"); }));
    stopHost(*host);

    // Monitoring tools read the metrics file, through the folders above it.
    const std::map<fs::path, unsigned> forOthers = {
        {root / "run", 0755},
        {root / "run/Brasswick", 0755},
        {root / "run/Brasswick/metrics.json", 0644},
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
