// A freshly provisioned desktop pairs and connects by itself: agenthost with
// the module, the development broker and credential service, provisioning
// through devcloud, all real processes.

#include "support/MqttTestClient.h"
#include "support/Process.h"
#include "support/TempDir.h"

#include <json/reader.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kNodeManager = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
const std::string kConnected = "MqttManager::SetState(): State: MQTT_STATE_CONNECTED";

// The value after "KEY " on the first line that starts with it.
std::string lineValue(const std::string& output, const std::string& key) {
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key + " ", 0) == 0) {
            return line.substr(key.size() + 1);
        }
    }
    return {};
}

class PairingTest : public ::testing::Test {
protected:
    PairingTest() {
        const std::string d = cloud_.path().string();
        EXPECT_EQ(run({DEVCLOUD_PATH, "ca", "init", "--dir", d}).status, 0);
        broker_ = std::make_unique<Process>(
            std::vector<std::string>{DEVCLOUD_PATH, "broker", "--dir", d});
        EXPECT_TRUE(broker_->waitForLine("port ", 30s)) << broker_->output();
        credsvc_ = std::make_unique<Process>(
            std::vector<std::string>{DEVCLOUD_PATH, "credsvc", "--dir", d});
        EXPECT_TRUE(credsvc_->waitForLine("thumbprint ", 30s)) << credsvc_->output();
        url_ = lineValue(credsvc_->output(), "url");
        thumbprint_ = lineValue(credsvc_->output(), "thumbprint");
        brokerPort_ = std::stoi(lineValue(broker_->output(), "port"));
    }

    void regctlSet(const std::string& name, const std::string& value) {
        const auto r =
            run({REGCTL_PATH, "--root", root_.path().string(), "set", kNodeManager, name, value});
        ASSERT_EQ(r.status, 0) << r.output;
    }

    std::unique_ptr<Process> startAgent() {
        return std::make_unique<Process>(std::vector<std::string>{AGENTHOST_PATH, "--root",
                                                                  root_.path().string(), "--plugin",
                                                                  MODULE_PATH, "--log-level", "0"});
    }

    // Provisions the desktop; returns the one-time password it was given.
    std::string provision() { return provision(url_); }
    std::string provision(const std::string& url) {
        const auto staged = cloud_.path() / "spec.json";
        const auto r = run({DEVCLOUD_PATH, "provision", "--dir", cloud_.path().string(), "--url",
                            url, "--vm-id", "vm7", "--edge-id", "e1", "--short-template-id", "t3",
                            "--spec-file", staged.string()});
        EXPECT_EQ(r.status, 0) << r.output;
        std::ifstream in(staged);
        Json::Value spec;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &spec, nullptr));
        const auto target = root_.path() / "AzureData" / "CustomData.bin";
        std::filesystem::create_directories(target.parent_path());
        std::filesystem::rename(staged, target);  // appears whole, as a provisioning system does
        return spec["nexHub"]["oneTimePassword"].asString();
    }

    std::unique_ptr<MqttTestClient> watcher() {
        const std::string prefix = (cloud_.path() / "watcher").string();
        EXPECT_EQ(run({DEVCLOUD_PATH, "client-cert", "--dir", cloud_.path().string(), "--cn",
                       "watcher", "--out", prefix})
                      .status,
                  0);
        ClientOptions o;
        o.port = brokerPort_;
        o.clientId = "watcher";
        o.tls = devcloud::TlsFiles{(cloud_.path() / "ca.pem").string(), prefix + ".pem",
                                   prefix + ".key"};
        auto client = std::make_unique<MqttTestClient>(o);
        EXPECT_TRUE(client->connect());
        EXPECT_TRUE(client->subscribe("desktop/e1/vm7/agent/#", 1));
        return client;
    }

    TempDir cloud_;
    TempDir root_;
    std::unique_ptr<Process> broker_;
    std::unique_ptr<Process> credsvc_;
    std::string url_;
    std::string thumbprint_;
    int brokerPort_ = 0;
};

TEST_F(PairingTest, ProvisionedDesktopPairsConnectsAnswersAndReconnectsFromItsCache) {
    regctlSet("mqtt_SslCertThumbprint", thumbprint_);
    auto agent = startAgent();
    ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
    const std::string otp = provision();
    ASSERT_FALSE(otp.empty());
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    auto watch = watcher();

    // The client certificate carries the agent identity; the password is gone.
    const auto certs = run({CERTCTL_PATH, "--root", root_.path().string(), "list"});
    EXPECT_NE(certs.output.find("CN=e1t3_vm7"), std::string::npos) << certs.output;
    const auto otpValue =
        run({REGCTL_PATH, "--root", root_.path().string(), "get", kNodeManager, "mqtt_Otp"});
    EXPECT_EQ(otpValue.output.find(otp), std::string::npos);

    // A command from the control plane is answered.
    const auto answer = run({DEVCLOUD_PATH, "send", "--dir", cloud_.path().string(), "--port",
                             std::to_string(brokerPort_), "--desktop", "e1/vm7", "--command",
                             "GetHostFacts", "--timeout", "20"});
    EXPECT_EQ(answer.status, 0) << answer.output;
    EXPECT_NE(answer.output.find("HOSTNAME"), std::string::npos) << answer.output;

    // Killed, the agent leaves its last will.
    agent->signal(SIGKILL);
    agent->wait();
    const auto will = watch->waitForPayload("desktop/e1/vm7/agent/status", 60s);
    ASSERT_TRUE(will);
    EXPECT_NE(will->find("\"status\":\"ERROR\""), std::string::npos) << *will;
    EXPECT_NE(will->find("\"guid\":"), std::string::npos) << *will;
    EXPECT_EQ(agent->output().find(otp), std::string::npos) << "the password reached the log";

    // Started again, it connects from what it stored, without pairing again.
    const std::size_t requests = credsvc_->countLines("vmId");
    auto again = startAgent();
    ASSERT_TRUE(again->waitForLine(kConnected, 60s)) << again->output();
    EXPECT_EQ(again->countLines("MqttManager::RequestCredentials(): Skipping credentials request"),
              1u);
    EXPECT_EQ(credsvc_->countLines("vmId"), requests);
    again->signal(SIGTERM);
    EXPECT_EQ(again->wait(30s), std::optional<int>(0));
}

TEST_F(PairingTest, AWrongThumbprintFailsTheRequestAndTheChainRetries) {
    regctlSet("mqtt_SslCertThumbprint", std::string(95, 'A'));
    auto agent = startAgent();
    ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
    provision();
    ASSERT_TRUE(
        agent->waitForLine("MqttManager::RequestCredentials(): Failed to register with REST API."))
        << agent->output();
    EXPECT_TRUE(agent->waitForLine("Wait interval set to"));
    EXPECT_EQ(credsvc_->countLines("vmId"), 0u) << "no request may reach the service";
    agent->signal(SIGTERM);
    EXPECT_EQ(agent->wait(30s), std::optional<int>(0));
}

// A credential service that fails (an error status, or an answer that is not
// a credentials response) fails the step with its line, and the chain backs off.
TEST_F(PairingTest, AFailingCredentialServiceFailsTheStepAndTheChainRetries) {
    struct Case {
        const char* fault;
        const char* line;
    };
    for (const Case c :
         {Case{"500", "MqttManager::RequestCredentials(): Failed to register with REST API."},
          Case{"garbage",
               "MqttManager::RequestCredentials(): Credentials response parse failed."}}) {
        SCOPED_TRACE(c.fault);
        Process faulty(
            {DEVCLOUD_PATH, "credsvc", "--dir", cloud_.path().string(), "--fault", c.fault});
        ASSERT_TRUE(faulty.waitForLine("thumbprint ", 30s)) << faulty.output();
        TempDir root;
        ASSERT_EQ(run({REGCTL_PATH, "--root", root.path().string(), "set", kNodeManager,
                       "mqtt_SslCertThumbprint", lineValue(faulty.output(), "thumbprint")})
                      .status,
                  0);
        Process agent({AGENTHOST_PATH, "--root", root.path().string(), "--plugin", MODULE_PATH,
                       "--log-level", "0"});
        ASSERT_TRUE(agent.waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent.output();
        ASSERT_EQ(run({DEVCLOUD_PATH, "provision", "--dir", cloud_.path().string(), "--url",
                       lineValue(faulty.output(), "url"), "--vm-id", "vm7", "--edge-id", "e1",
                       "--short-template-id", "t3", "--root", root.path().string()})
                      .status,
                  0);
        EXPECT_TRUE(agent.waitForLine(c.line, 60s)) << agent.output();
        EXPECT_TRUE(agent.waitForLine("Wait interval set to"));
        EXPECT_EQ(agent.countLines("MQTT_STATE_CONNECTED"), 0u);
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.wait(30s), std::optional<int>(0));
    }
}

}  // namespace
}  // namespace ndpx::test
