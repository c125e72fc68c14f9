// The development control plane as an operator uses it: a broker from its
// folder that admits certificates its CRL does not revoke, a command sent to
// a desktop and the desktop's answer printed.

#include "support/Process.h"
#include "support/TempDir.h"

#include <devcloud/BrokerProcess.h>
#include <devcloud/EchoResponder.h>
#include <devcloud/Home.h>
#include <platform/SocketTuning.h>
#include <platform/UniqueFd.h>

#include <gtest/gtest.h>
#include <json/json.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

class DevcloudTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto init = run({DEVCLOUD_PATH, "ca", "init", "--dir", dir()});
        ASSERT_EQ(init.status, 0) << init.output;
        writeCrl({});
        broker_ = std::make_unique<Process>(
            std::vector<std::string>{DEVCLOUD_PATH, "broker", "--dir", dir(), "--crl", crl()});
        ASSERT_TRUE(broker_->waitForLine("devcloud: broker ready")) << broker_->output();
        const std::string port = broker_->valueAfter("port");
        ASSERT_FALSE(port.empty()) << broker_->output();
        port_ = std::stoi(port);
    }
    void TearDown() override {
        if (broker_) {
            broker_->signal(SIGTERM);
            EXPECT_EQ(broker_->wait(), 0) << broker_->output();
        }
    }

    std::string dir() const { return (tmp_.path() / "devcloud").string(); }
    std::string crl() const { return (tmp_.path() / "broker.crl").string(); }

    // The broker's CRL, revoking the certificates of these desktops.
    void writeCrl(const std::vector<std::string>& desktops) {
        std::vector<std::string> argv{DEVCLOUD_PATH, "ca", "crl", "--dir", dir(), "--out", crl()};
        for (const auto& desktop : desktops) {
            argv.insert(argv.end(), {"--revoke", desktopOptions(desktop).tls->certFile});
        }
        const auto r = run(argv);
        ASSERT_EQ(r.status, 0) << r.output;
    }

    devcloud::ClientOptions desktopOptions(const std::string& desktop) const {
        devcloud::ClientOptions o;
        o.port = port_;
        o.clientId = "desktop-" + desktop;
        o.tls = devcloud::Home(dir()).clientFiles("desktop-" + desktop);
        return o;
    }

    RunResult send(const std::string& desktop, std::vector<std::string> extra) {
        std::vector<std::string> argv{DEVCLOUD_PATH,         "send",      "--dir", dir(), "--port",
                                      std::to_string(port_), "--desktop", desktop};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return run(argv);
    }

    TempDir tmp_;
    std::unique_ptr<Process> broker_;
    int port_ = 0;
    int connections_ = 0;
};

TEST_F(DevcloudTest, SendPrintsTheAnswerWithTheCommandsIdAndMetadataOrTimesOut) {
    devcloud::EchoResponder desktop(desktopOptions("edge1/vm7"), "edge1/vm7");
    ASSERT_TRUE(desktop.start()) << desktop.client().lastError();

    const auto result = send("edge1/vm7", {"--command", "GetHostFacts", "--arg", "USER=alice",
                                           "--metadata", R"({"trace":"t-1"})"});
    ASSERT_EQ(result.status, 0) << result.output;
    Json::Value answer;
    std::istringstream in(result.output);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &answer, nullptr))
        << result.output;
    EXPECT_EQ(answer["COMMAND"].asString(), "GetHostFacts");
    EXPECT_EQ(answer["USER"].asString(), "alice");
    EXPECT_EQ(answer["METADATA"]["trace"].asString(), "t-1");
    EXPECT_EQ(answer["ID"].asString().size(), 36u);
    EXPECT_EQ(desktop.answered(), 1u);

    const auto silent = send("silent", {"--command", "Ping", "--timeout", "1"});
    EXPECT_EQ(silent.status, 1);
    EXPECT_NE(silent.output.find("no answer to Ping"), std::string::npos) << silent.output;
}

// A reload makes the broker read its CRL again, on the same port.
TEST_F(DevcloudTest, BrokerRefusesACertificateItsReloadedCrlRevokesAndAdmitsOthers) {
    const auto connects = [this](const std::string& desktop) {
        devcloud::ClientOptions o = desktopOptions(desktop);
        o.clientId += "-" + std::to_string(++connections_);
        devcloud::MqttClient client(o);
        return client.connect(10s);
    };
    EXPECT_TRUE(connects("revoked"));

    writeCrl({"revoked"});
    broker_->signal(SIGHUP);
    ASSERT_TRUE(broker_->waitForLine("devcloud: broker reloaded its configuration"))
        << broker_->output();
    EXPECT_FALSE(connects("revoked"));
    EXPECT_TRUE(connects("admitted"));
}

// Certificate-only admission of this configuration is tested in broker_fixture_test.
TEST_F(DevcloudTest, BrokerRunsWithNoDelayAndTheCaKeyIsPrivate) {
    const std::string conf =
        devcloud::readTextFile(std::filesystem::path(dir()) / "broker" / "mosquitto.conf");
    EXPECT_NE(conf.find("set_tcp_nodelay true"), std::string::npos) << conf;
    EXPECT_EQ(std::filesystem::status(std::filesystem::path(dir()) / "ca.key").permissions() &
                  std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(TopicFilter, WildcardsMatchAsInMqtt) {
    EXPECT_TRUE(devcloud::topicMatches("#", "desktop/a/agent/status"));
    EXPECT_TRUE(devcloud::topicMatches("desktop/#", "desktop"));
    EXPECT_TRUE(devcloud::topicMatches("desktop/#", "desktop/e1/vm7/agent/sessions/response"));
    EXPECT_TRUE(devcloud::topicMatches("desktop/+/agent/status", "desktop/a/agent/status"));
    EXPECT_FALSE(devcloud::topicMatches("desktop/+/agent/status", "desktop/e1/vm7/agent/status"));
    EXPECT_TRUE(devcloud::topicMatches("a/+", "a/"));
    EXPECT_FALSE(devcloud::topicMatches("a/+", "a"));
    EXPECT_FALSE(devcloud::topicMatches("a/b", "a/b/c"));
    EXPECT_FALSE(devcloud::topicMatches("a/b/c", "a/b"));
    EXPECT_TRUE(devcloud::topicMatches("a/b", "a/b"));
}

TEST(TcpNoDelay, SetsTheOptionOnlyOnSocketsToThatPeer) {
    const platform::UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&addr), &len), 0);
    const platform::UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const platform::UniqueFd accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_GE(accepted.get(), 0);
    const auto noDelay = [](int fd) {
        int v = -1;
        socklen_t l = sizeof v;
        ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &v, &l);
        return v;
    };

    const int port = ntohs(addr.sin_port);
    EXPECT_EQ(platform::setNoDelayForPeer("127.0.0.1", port == 65535 ? 1 : port + 1), 0);
    EXPECT_EQ(noDelay(client.get()), 0);
    EXPECT_EQ(platform::setNoDelayForPeer("localhost", port), 1);
    EXPECT_EQ(noDelay(client.get()), 1);
    EXPECT_EQ(noDelay(accepted.get()), 0);  // its peer is the client's port
}

}  // namespace
}  // namespace ndpx::test
