#pragma once
// A desktop and its development control plane as real processes: the devcloud
// CA, broker and credential service, agenthost with the module, regctl and
// certctl, each test in its own folders.

#include "support/MqttTestClient.h"
#include "support/Process.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::test {

inline const std::string kNodeManager =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
inline const std::string kConnected = "MqttManager::SetState(): State: MQTT_STATE_CONNECTED";

class DesktopCloudTest : public ::testing::Test {
protected:
    DesktopCloudTest() { EXPECT_EQ(run({DEVCLOUD_PATH, "ca", "init", "--dir", dir()}).status, 0); }

    std::string dir() const { return cloud_.path().string(); }

    // The broker and the credential service, with extra options for each.
    void startCloud(const std::vector<std::string>& brokerArgs = {},
                    const std::vector<std::string>& credsvcArgs = {}) {
        startBroker(brokerArgs);
        std::vector<std::string> argv{DEVCLOUD_PATH, "credsvc", "--dir", dir()};
        argv.insert(argv.end(), credsvcArgs.begin(), credsvcArgs.end());
        credsvc_ = std::make_unique<Process>(argv);
        ASSERT_TRUE(credsvc_->waitForLine("thumbprint ", std::chrono::seconds(30)))
            << credsvc_->output();
        url_ = credsvc_->valueAfter("url");
        thumbprint_ = credsvc_->valueAfter("thumbprint");
    }
    // (Re)starts the broker; once it ran, again on the same port.
    void startBroker(const std::vector<std::string>& brokerArgs) {
        std::vector<std::string> argv{DEVCLOUD_PATH, "broker", "--dir", dir()};
        if (brokerPort_ != 0) {
            argv.insert(argv.end(), {"--port", std::to_string(brokerPort_)});
        }
        argv.insert(argv.end(), brokerArgs.begin(), brokerArgs.end());
        stopBroker();
        broker_ = std::make_unique<Process>(argv);
        ASSERT_TRUE(broker_->waitForLine("port ", std::chrono::seconds(30))) << broker_->output();
        brokerPort_ = std::stoi(broker_->valueAfter("port"));
    }

    void stopBroker() {
        if (broker_) {
            // Asked, devcloud stops its mosquitto too and the port is free.
            broker_->signal(SIGTERM);
            EXPECT_TRUE(broker_->wait(std::chrono::seconds(10)).has_value());
            broker_.reset();
        }
    }

    void regctlSet(const std::string& name, const std::string& value) {
        regctlSet(root_, name, value);
    }
    static void regctlSet(const TempDir& root, const std::string& name, const std::string& value) {
        const auto r =
            run({REGCTL_PATH, "--root", root.path().string(), "set", kNodeManager, name, value});
        ASSERT_EQ(r.status, 0) << r.output;
    }
    static RunResult certctl(const TempDir& root, const std::vector<std::string>& args) {
        std::vector<std::string> argv{CERTCTL_PATH, "--root", root.path().string()};
        argv.insert(argv.end(), args.begin(), args.end());
        auto r = run(argv);
        EXPECT_EQ(r.status, 0) << r.output;
        return r;
    }

    // agentctl against the host under `root`.
    RunResult agentctl(const std::vector<std::string>& args) { return agentctl(root_, args); }
    static RunResult agentctl(const TempDir& root, const std::vector<std::string>& args) {
        std::vector<std::string> argv{AGENTCTL_PATH, "--root", root.path().string()};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv);
    }

    std::unique_ptr<Process> startAgent() { return startAgent(root_); }
    static std::unique_ptr<Process> startAgent(const TempDir& root) {
        return std::make_unique<Process>(std::vector<std::string>{AGENTHOST_PATH, "--root",
                                                                  root.path().string(), "--plugin",
                                                                  MODULE_PATH, "--log-level", "0"});
    }
    static void stop(Process& agent) {
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.wait(std::chrono::seconds(30)), std::optional<int>(0)) << agent.output();
    }

    // Provisions the desktop `vmId` under `root`, with extra provisioning
    // options. Provisioning in the root also makes the desktop trust the
    // devcloud CA; an untrusting desktop is given only its document.
    void provisionInto(const TempDir& root, const std::string& url, const std::string& vmId,
                       const std::vector<std::string>& extra = {}, bool trustCa = true) {
        std::vector<std::string> argv{DEVCLOUD_PATH, "provision", "--dir", dir(), "--url", url};
        argv.insert(argv.end(), {"--vm-id", vmId, "--edge-id", "e1", "--short-template-id", "t3"});
        if (trustCa) {
            argv.insert(argv.end(), {"--root", root.path().string()});
        } else {
            const auto document = root.path() / "AzureData" / "CustomData.bin";
            argv.insert(argv.end(), {"--spec-file", document.string()});
        }
        argv.insert(argv.end(), extra.begin(), extra.end());
        const auto r = run(argv);
        ASSERT_EQ(r.status, 0) << r.output;
    }

    // Provisions desktop vm7 under `root` with its document only (no trust in
    // the CA), the file appearing whole; returns the one-time password in it.
    std::string provisionStaged(const TempDir& root, const std::string& url) {
        const auto staged = cloud_.path() / "spec.json";
        const auto r =
            run({DEVCLOUD_PATH, "provision", "--dir", dir(), "--url", url, "--vm-id", "vm7",
                 "--edge-id", "e1", "--short-template-id", "t3", "--spec-file", staged.string()});
        EXPECT_EQ(r.status, 0) << r.output;
        std::ifstream in(staged);
        Json::Value spec;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &spec, nullptr));
        const auto target = root.path() / "AzureData" / "CustomData.bin";
        std::filesystem::create_directories(target.parent_path());
        std::filesystem::rename(staged, target);  // appears whole, as a provisioning system does
        return spec["nexHub"]["oneTimePassword"].asString();
    }

    // A CRL of the devcloud CA listing the certificates (PEM files) in
    // `revoke`; its path.
    std::string writeCrl(const std::string& name, const std::vector<std::string>& revoke) {
        const std::string out = (cloud_.path() / name).string();
        std::vector<std::string> argv{DEVCLOUD_PATH, "ca", "crl", "--dir", dir(), "--out", out};
        for (const auto& file : revoke) {
            argv.insert(argv.end(), {"--revoke", file});
        }
        EXPECT_EQ(run(argv).status, 0);
        return out;
    }
    // A client certificate of the devcloud CA; the file prefix.
    std::string clientCert(const std::string& cn) {
        const std::string prefix = (cloud_.path() / cn).string();
        EXPECT_EQ(
            run({DEVCLOUD_PATH, "client-cert", "--dir", dir(), "--cn", cn, "--out", prefix}).status,
            0);
        return prefix;
    }
    ClientOptions clientOptions(const std::string& prefix, const std::string& clientId) const {
        ClientOptions o;
        o.port = brokerPort_;
        o.clientId = clientId;
        o.tls = devcloud::TlsFiles{(cloud_.path() / "ca.pem").string(), prefix + ".pem",
                                   prefix + ".key"};
        return o;
    }
    // A control-plane client that sees everything desktop e1/vm7 sends and
    // receives; `handler`, when given, gets the messages instead of the queue.
    std::unique_ptr<MqttTestClient> watcher(devcloud::MqttClient::Handler handler = {}) {
        auto client =
            std::make_unique<MqttTestClient>(clientOptions(clientCert("watcher"), "watcher"));
        if (handler) {
            client->setHandler(std::move(handler));
        }
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

}  // namespace ndpx::test
