// The settings store filling up mid-run, while the desktop stores what it
// paired with and while it swaps in a renewed certificate: agenthost with the
// module, the devcloud control plane, real SQLite stores.
//
// Root ignores file modes, so a file-size limit set on the running agent
// (prlimit) stands in for the full disk. The settings store keeps one
// connection open, so its write-ahead log only grows: once it is grown past
// the limit every settings write fails, while the certificate store (a
// connection per operation, its files far smaller) keeps working.

#include "integration/RenewalCloudTest.h"
#include "support/WaitUntil.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr rlim_t kFileSizeLimit = 320 * 1024;

const std::string kSwapped =
    "CertMonitor::ActivatePendingCertificate(): Successfully swapped the current and pending "
    "certificates.";
// The line naming the store and SQLite's reason.
const std::string kPendingStored =
    "CertMonitor::ProcessOTPTokenResponse(): Successfully refreshed client pending credentials";
// A line naming the store and SQLite's reason.
const std::string kFull = "the settings store: ";

class StoreFaultTest : public RenewalCloudTest {
protected:
    // agenthost with SIGXFSZ ignored (the disposition survives exec), so that
    // a write past the limit fails with EFBIG, as a full disk fails it.
    static std::unique_ptr<Process> startLimitableAgent(const TempDir& root) {
        return std::make_unique<Process>(std::vector<std::string>{
            "/bin/sh", "-c", "trap '' XFSZ; exec \"$0\" \"$@\"", AGENTHOST_PATH, "--root",
            root.path().string(), "--plugin", MODULE_PATH, "--log-level", "0"});
    }
    // A desktop of its own under `root`, waiting for its provisioning.
    std::unique_ptr<Process> startUnpairedAgent(const TempDir& root) {
        regctlSet(root, "mqtt_SslCertThumbprint", thumbprint_);
        regctlSet(root, "mqtt_StartupMaxJitter", "0");
        regctlSet(root, "mqtt_CertExpiryDays", "7");
        auto agent = startLimitableAgent(root);
        EXPECT_TRUE(agent->waitForLine("MQTT_STATE_WAITING_CONFIG")) << agent->output();
        return agent;
    }
    // Provisions the desktop under `root` with the credential service held,
    // so that its answer waits until the test lets it go; the password.
    std::string provisionHeld(const TempDir& root, Process& agent) {
        credsvc_->signal(SIGSTOP);
        const std::string otp = provisionStaged(root, url_);
        EXPECT_TRUE(agent.waitForLine(
            "MqttManager::RequestCredentials(): Requesting credentials from hub.", 60s))
            << agent.output();
        return otp;
    }
    static void limitFileSize(const Process& agent, rlim_t bytes) {
        const rlimit limit{bytes, RLIM_INFINITY};
        ASSERT_EQ(::prlimit(agent.pid(), RLIMIT_FSIZE, &limit, nullptr), 0) << std::strerror(errno);
    }
    // Grows the settings store's write-ahead log past the limit, with values
    // of a key the agent does not read.
    void fillSettingsLog() {
        const fs::path log = root_.path() / "var/lib/Brasswick/registry.sqlite-wal";
        const std::string filler(100000, 'f');
        for (int i = 0; fs::file_size(log) <= kFileSizeLimit && i < 8; ++i) {
            const auto r = run({REGCTL_PATH, "--root", root_.path().string(), "set",
                                "HKLM\\Software\\SoakFiller", "v" + std::to_string(i), filler});
            ASSERT_EQ(r.status, 0) << r.output;
        }
        ASSERT_GT(fs::file_size(log), kFileSizeLimit);
    }
    bool hasSetting(const std::string& name) {
        return run({REGCTL_PATH, "--root", root_.path().string(), "get", kNodeManager, name})
                   .status == 0;
    }
    // Stops the agent (promptly, exit 0) and checks that both stores read.
    void stopAndReadStores(Process& agent) {
        stop(agent);
        certctl(root_, {"list"});
        const auto listed =
            run({REGCTL_PATH, "--root", root_.path().string(), "list", kNodeManager});
        EXPECT_EQ(listed.status, 0) << listed.output;
    }
    static void expectNoSecret(const Process& agent, const std::vector<std::string>& otps) {
        const std::string log = agent.output();
        EXPECT_EQ(log.find("PRIVATE KEY"), std::string::npos) << "a private key reached the log";
        for (const auto& otp : otps) {
            EXPECT_EQ(log.find(otp), std::string::npos) << "a password reached the log";
        }
    }
};

// The stores fill while the answer of the credential service is on its way
// (the service is held until the limit is set).
//
// A disk full for every file: the certificate store cannot even be opened
// (SQLite sizes its shared index anew for each connection), so the request
// fails at the service's chain before a byte is sent and the password is
// kept; with room again, the chain's next pass pairs.
//
// Only the settings store full: the certificate is stored, the endpoint
// cannot be. The agent says why and backs off; with room again and a
// restart, the stores read and a new provisioning pairs it.
TEST_F(StoreFaultTest, AStoreFullWhilePairingFailsClearlyAndTheDesktopPairsOnceThereIsRoom) {
    startCloud();
    {
        TempDir full;
        auto agent = startUnpairedAgent(full);
        const std::string otp = provisionHeld(full, *agent);
        limitFileSize(*agent, 1);
        credsvc_->signal(SIGCONT);
        EXPECT_TRUE(agent->waitForLine(
            "BuildCertificateChain(): Unable to open the certificate database: ", 30s))
            << agent->output();
        EXPECT_TRUE(agent->waitForLine(
            "MqttManager::RequestCredentials(): Failed to register with REST API.", 30s));
        EXPECT_TRUE(agent->waitForLine("Wait interval set to", 10s)) << agent->output();
        EXPECT_EQ(credsvc_->countLines("vmId="), 0u) << "no request may reach the service";
        limitFileSize(*agent, RLIM_INFINITY);
        EXPECT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
        stop(*agent);
        expectNoSecret(*agent, {otp});
    }

    auto agent = startUnpairedAgent(root_);
    const std::string otp = provisionHeld(root_, *agent);
    // Only now: storing the password truncated the log.
    fillSettingsLog();
    limitFileSize(*agent, kFileSizeLimit);
    credsvc_->signal(SIGCONT);

    ASSERT_TRUE(
        agent->waitForLine("MqttManager::StorePairingData(): Unable to store pairing data.", 30s))
        << agent->output();
    EXPECT_GE(agent->countLines(kFull), 1u) << agent->output();
    EXPECT_TRUE(agent->waitForLine("Wait interval set to", 10s)) << agent->output();
    EXPECT_EQ(agent->countLines("MQTT_STATE_CONNECTED"), 0u);
    limitFileSize(*agent, RLIM_INFINITY);
    stopAndReadStores(*agent);
    expectNoSecret(*agent, {otp});

    auto again = startAgent();
    const std::string second = provisionStaged(root_, url_);
    ASSERT_TRUE(again->waitForLine(kConnected, 60s)) << again->output();
    EXPECT_EQ(sendCommand().status, 0);
    EXPECT_EQ(credsvc_->countLines("200 issued"), 3u) << credsvc_->output();
    // The password the full store could not clear is gone with the next pairing.
    const auto stored =
        run({REGCTL_PATH, "--root", root_.path().string(), "get", kNodeManager, "mqtt_Otp"});
    EXPECT_EQ(stored.output.find(otp), std::string::npos);
    stop(*again);
    expectNoSecret(*again, {otp, second});
}

// The settings store fills between a renewal and its swap: the swap cannot
// be recorded, so the certificate in use stays and the session keeps
// answering. With room again, the next swap goes through, and a restart
// connects with what was stored.
TEST_F(StoreFaultTest, ASettingsStoreFullAtTheSwapKeepsTheCertificateInUseUntilThereIsRoom) {
    startCloud();
    regctlSet("mqtt_CertExpiryDays", "7");
    regctlSet("mqtt_CertOtpRepeatInterval", "1");
    std::mutex mutex;
    std::vector<std::string> otps;
    auto watch = watcher([&](const devcloud::Message& m) {
        const auto at = m.payload.find("\"otp\":\"");
        if (m.topic.ends_with("/credentials/token") && at != std::string::npos) {
            std::lock_guard lock(mutex);
            otps.push_back(m.payload.substr(at + 7, 32));
        }
    });
    auto renewer = startRenewer();
    auto agent = startLimitableAgent(root_);
    const Certificate old = pairAndAwaitFirstCheck(*agent);
    ASSERT_FALSE(HasFailure());

    // A pending certificate, asked to be swapped in at the next check.
    const auto renew =
        run({DEVCLOUD_PATH, "renew", "--dir", dir(), "--port", std::to_string(brokerPort_),
             "--desktop", "e1/vm7", "--url", url_, "--force-swap"});
    ASSERT_EQ(renew.status, 0) << renew.output;
    ASSERT_TRUE(agent->waitForLine(kPendingStored, 30s)) << agent->output();
    tokenTaken();
    fillSettingsLog();
    limitFileSize(*agent, kFileSizeLimit);
    // The swap trigger asks for a certificate first.
    waitOutTokenRepeat();
    regctlSet("mqtt_TriggerCertSwap", "1");
    ASSERT_TRUE(agent->waitForLine(
        "CertMonitor::ActivatePendingCertificate(): Failed to activate pending certificate", 60s))
        << agent->output();
    EXPECT_GE(agent->countLines(kFull), 1u) << agent->output();
    EXPECT_EQ(agent->countLines(kSwapped), 0u) << agent->output();
    EXPECT_EQ(currentCertificate().serial, old.serial);
    EXPECT_EQ(sendCommand().status, 0) << "the certificate in use no longer works";

    limitFileSize(*agent, RLIM_INFINITY);
    regctlSet("mqtt_TriggerCertSwap", "0");
    tokenTaken();
    waitOutTokenRepeat();
    regctlSet("mqtt_TriggerCertSwap", "1");
    ASSERT_TRUE(agent->waitForLine(kSwapped, 60s)) << agent->output();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) == 2; }, 30s))
        << agent->output();
    EXPECT_NE(currentCertificate().serial, old.serial);
    EXPECT_EQ(sendCommand().status, 0);
    stopAndReadStores(*agent);
    // The swap is complete: no record, no pending values left.
    EXPECT_FALSE(hasSetting("mqtt_CertSwapIntent"));
    EXPECT_FALSE(hasSetting("mqtt_PendingEndpointUrl"));

    auto again = startAgent();
    ASSERT_TRUE(again->waitForLine(kConnected, 60s)) << again->output();
    EXPECT_EQ(again->countLines("MqttManager::RequestCredentials(): Skipping credentials request"),
              1u);
    stop(*again);
    std::lock_guard lock(mutex);
    EXPECT_GE(otps.size(), 2u);
    expectNoSecret(*agent, otps);
}

}  // namespace
}  // namespace ndpx::test
