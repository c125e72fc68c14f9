// A freshly provisioned desktop pairs and connects by itself: agenthost with
// the module, the development broker and credential service, provisioning
// through devcloud, all real processes.

#include "DesktopCloudTest.h"
#include "support/Tinyproxy.h"

#include <json/reader.h>

#include <fstream>
#include <sstream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

class PairingTest : public DesktopCloudTest {
protected:
    PairingTest() { startCloud(); }

    // Provisions the desktop; returns the one-time password it was given.
    std::string provision() { return provisionStaged(root_, url_); }
    std::string provision(const std::string& url) { return provisionStaged(root_, url); }
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
    const auto certs = certctl(root_, {"list"});
    EXPECT_NE(certs.output.find("CN=e1t3_vm7"), std::string::npos) << certs.output;
    EXPECT_NE(certs.output.find("Role:          current client certificate (in use)"),
              std::string::npos)
        << certs.output;
    const auto listed = certctl(root_, {"list", "--json"});
    Json::Value json;
    std::istringstream jsonText(listed.output);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), jsonText, &json, nullptr))
        << listed.output;
    std::size_t current = 0;
    for (const auto& c : json["certificates"]) {
        if (c["role"].asString() == "current") {
            ++current;
            EXPECT_EQ(c["subject"].asString(), "CN=e1t3_vm7");
            EXPECT_GT(c["secondsToExpiry"].asInt64(), 0);
        }
    }
    EXPECT_EQ(current, 1u) << listed.output;
    const auto otpValue =
        run({REGCTL_PATH, "--root", root_.path().string(), "get", kNodeManager, "mqtt_Otp"});
    EXPECT_EQ(otpValue.output.find(otp), std::string::npos);

    // A command from the control plane is answered.
    const auto answer =
        run({DEVCLOUD_PATH, "send", "--dir", dir(), "--port", std::to_string(brokerPort_),
             "--desktop", "e1/vm7", "--command", "GetHostFacts", "--timeout", "20"});
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

// A credential service that fails (an error status, an answer that is not a
// credentials response, or no answer at all) fails the step with its line,
// and the chain backs off.
TEST_F(PairingTest, AFailingCredentialServiceFailsTheStepAndTheChainRetries) {
    struct Case {
        const char* fault;
        const char* line;
    };
    for (const Case c :
         {Case{"500", "MqttManager::RequestCredentials(): Failed to register with REST API."},
          Case{"garbage", "MqttManager::RequestCredentials(): Credentials response parse failed."},
          Case{"silent", "CurlHttpRequest::RequestCallback(): No data moved for 2000 ms"}}) {
        SCOPED_TRACE(c.fault);
        Process faulty({DEVCLOUD_PATH, "credsvc", "--dir", dir(), "--fault", c.fault});
        ASSERT_TRUE(faulty.waitForLine("thumbprint ", 30s)) << faulty.output();
        TempDir root;
        regctlSet(root, "mqtt_SslCertThumbprint", faulty.valueAfter("thumbprint"));
        regctlSet(root, "mqtt_HubRequestTimeout", "10");  // receive share: 2 s
        auto agent = startAgent(root);
        ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
        provisionInto(root, faulty.valueAfter("url"), "vm7");
        EXPECT_TRUE(agent->waitForLine(c.line, 60s)) << agent->output();
        EXPECT_TRUE(agent->waitForLine("Wait interval set to"));
        EXPECT_EQ(agent->countLines("MQTT_STATE_CONNECTED"), 0u);
        stop(*agent);
    }
}

// A module without its HTTPS backend next to it says so once, fails the
// credential request like any failed exchange, and stops cleanly.
TEST_F(PairingTest, AMissingHttpsBackendFailsTheRequestCleanly) {
    const TempDir lone;
    const auto module = lone.path() / std::filesystem::path(MODULE_PATH).filename();
    std::filesystem::copy_file(MODULE_PATH, module);
    regctlSet("mqtt_SslCertThumbprint", thumbprint_);
    Process agent({AGENTHOST_PATH, "--root", root_.path().string(), "--plugin", module.string(),
                   "--log-level", "0"});
    ASSERT_TRUE(agent.waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent.output();
    provision();
    ASSERT_TRUE(agent.waitForLine("HTTPS client unavailable", 60s)) << agent.output();
    EXPECT_TRUE(agent.waitForLine("Wait interval set to")) << agent.output();
    EXPECT_NE(agent.output().find("ndpx_http.so"), std::string::npos) << agent.output();
    EXPECT_EQ(agent.countLines("HTTPS client unavailable"), 1u);
    EXPECT_EQ(agent.countLines("MQTT_STATE_CONNECTED"), 0u);
    stop(agent);
}

// A service that holds the credential request does not hold up a stop: the
// request is cancelled and the host exits at once, not after the request's
// time-out.
TEST_F(PairingTest, SigtermWhileTheCredentialServiceHoldsTheRequestExitsPromptly) {
    Process held({DEVCLOUD_PATH, "credsvc", "--dir", dir(), "--fault", "silent"});
    ASSERT_TRUE(held.waitForLine("thumbprint ", 30s)) << held.output();
    regctlSet("mqtt_SslCertThumbprint", held.valueAfter("thumbprint"));
    auto agent = startAgent();
    ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
    provisionInto(root_, held.valueAfter("url"), "vm7");
    ASSERT_TRUE(held.waitForLine("holding the request unanswered", 60s)) << held.output();
    agent->signal(SIGTERM);
    // Generous: this checks for a hang, not a speed.
    EXPECT_EQ(agent->wait(5s), std::optional<int>(0)) << agent->output();
    EXPECT_TRUE(agent->waitForLine("MqttManager::Stop(): MQTT Stop successful.", 1s));
}

// Without a pin the service's chain must lead to a root the machine trusts.
// Unknown, the request never leaves; once the operator trusts the CA (and
// adds its CRL: revocation checking is on by default) the next attempt pairs.
// A CRL naming the service's certificate fails the step.
TEST_F(PairingTest, AnUnpinnedServiceMustBeTrustedAndNotRevoked) {
    regctlSet("mqtt_StartupMaxJitter", "0");
    auto agent = startAgent();
    ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
    provisionInto(root_, url_, "vm7", {}, false);
    ASSERT_TRUE(agent->waitForLine(
        "CurlHttpRequest::RequestCallback(): Certificate Authority is unrecognized", 60s))
        << agent->output();
    EXPECT_TRUE(
        agent->waitForLine("MqttManager::RequestCredentials(): Failed to register with REST API."));

    // Meanwhile a second desktop trusts the CA but holds a CRL revoking the
    // service's certificate.
    const std::string ca = (cloud_.path() / "ca.pem").string();
    TempDir revokedRoot;
    certctl(revokedRoot, {"import", ca});
    certctl(revokedRoot,
            {"add-crl",
             writeCrl("revoked.crl", {(cloud_.path() / "credsvc" / "server.pem").string()})});
    auto refused = startAgent(revokedRoot);
    ASSERT_TRUE(refused->waitForLine("MQTT_STATE_WAITING_CONFIG")) << refused->output();
    provisionInto(revokedRoot, url_, "vm8", {}, false);
    EXPECT_TRUE(refused->waitForLine(
        "CurlHttpRequest::RequestCallback(): Certificate has been revoked", 60s))
        << refused->output();
    EXPECT_TRUE(refused->waitForLine("Wait interval set to"));
    stop(*refused);
    EXPECT_EQ(credsvc_->countLines("vmId"), 0u) << "no request may reach the service";

    certctl(root_, {"import", ca});
    certctl(root_, {"add-crl", writeCrl("empty.crl", {})});
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    EXPECT_EQ(credsvc_->countLines("vmId"), 1u);
    stop(*agent);
}

// The credential request goes through the proxy the provisioning file names,
// given explicitly or by a PAC script.
TEST_F(PairingTest, TheCredentialRequestGoesThroughTheProvisionedProxy) {
    if (!Tinyproxy::binary()) {
        GTEST_SKIP() << "tinyproxy is not installed";
    }
    const std::string servicePort =
        url_.substr(url_.rfind(':') + 1, url_.find('/', 8) - url_.rfind(':') - 1);
    const auto pac = cloud_.path() / "proxy.pac";
    for (const bool viaPac : {false, true}) {
        SCOPED_TRACE(viaPac ? "PAC" : "explicit");
        Tinyproxy proxy;
        ASSERT_TRUE(proxy.running());
        std::ofstream(pac) << "function FindProxyForURL(url, host) { return 'PROXY "
                           << proxy.address() << "'; }\n";
        TempDir root;
        regctlSet(root, "mqtt_SslCertThumbprint", thumbprint_);
        auto agent = startAgent(root);
        ASSERT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
        provisionInto(root, url_, "vm7",
                      viaPac ? std::vector<std::string>{"--pac-url", "file://" + pac.string()}
                             : std::vector<std::string>{"--proxy", proxy.address()});
        ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
        EXPECT_TRUE(proxy.tunnelledTo(std::stoi(servicePort))) << proxy.output();
        EXPECT_EQ(agent->countLines("getProxyURL(): Ran PAC file. Proxy access type: 3"),
                  viaPac ? 1u : 0u);
        stop(*agent);
    }
}

// Cached pairing data that no longer works (its client certificate is gone)
// is given up after "mqtt_StartupMaxCachedRetries" failures: the agent
// forgets it, waits for a new provisioning file and pairs again.
TEST_F(PairingTest, BrokenCachedPairingDataLeadsToAFreshBootstrap) {
    regctlSet("mqtt_SslCertThumbprint", thumbprint_);
    regctlSet("mqtt_StartupMaxCachedRetries", "0");
    regctlSet("mqtt_StartupMaxJitter", "0");
    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    stop(*agent);

    certctl(root_, {"delete", "Agent Connect MQTT Client Certificate"});
    auto again = startAgent();
    ASSERT_TRUE(
        again->waitForLine("MqttManager::HandleActiveRetries(): Failed to retrieve and "
                           "validate cached pairing data after 0 retries, will bootstrap.",
                           60s))
        << again->output();
    // The pin went with the first pairing's temporary values; provisioning
    // sets it again with the new file.
    regctlSet("mqtt_SslCertThumbprint", thumbprint_);
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(again->waitForLine(kConnected, 60s)) << again->output();
    EXPECT_EQ(credsvc_->countLines("vmId"), 2u);
    stop(*again);
}

}  // namespace
}  // namespace ndpx::test
