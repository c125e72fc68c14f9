// The credential service failing while a desktop renews its certificate:
// agenthost with the module, the devcloud broker, renewer and credential
// service, the service started again on its port with another fault.

#include "integration/RenewalCloudTest.h"
#include "support/WaitUntil.h"

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kRenewalFailed =
    "CertMonitor::GeneratePendingCertificate(): Unable to generate client pending certificate";

class CredentialServiceRenewalTest : public RenewalCloudTest {
protected:
    // The credential service again on its port, now with `fault`; the
    // renewer's tokens still name it.
    void restartCredentialService(const std::string& fault) {
        const std::string port = credsvc_->valueAfter("port");
        credsvc_->signal(SIGTERM);
        ASSERT_EQ(credsvc_->wait(10s), std::optional<int>(0)) << credsvc_->output();
        credsvc_ = std::make_unique<Process>(std::vector<std::string>{
            DEVCLOUD_PATH, "credsvc", "--dir", dir(), "--port", port, "--fault", fault});
        ASSERT_TRUE(credsvc_->waitForLine("thumbprint ", 30s)) << credsvc_->output();
    }
    // Sets the trigger `name` anew (only a change to a true value triggers),
    // once a token now would not be taken for a repeat.
    void trigger(const std::string& name) {
        regctlSet(name, "0");
        waitOutTokenRepeat();
        regctlSet(name, "1");
    }
};

// An error status, an answer that is not a credentials response, and no
// answer at all each fail the renewal with their line while the desktop
// keeps answering on its certificate; a healthy service then renews it, and
// a stop while the service holds a request is not held up by it.
TEST_F(CredentialServiceRenewalTest,
       AFailingServiceFailsTheRenewalAndTheCertificateInUseCarriesOn) {
    startCloud();
    regctlSet("mqtt_CertExpiryDays", "7");
    regctlSet("mqtt_CertOtpRepeatInterval", "1");
    regctlSet("mqtt_HubRequestTimeout", "10");  // receive share: 2 s
    auto renewer = startRenewer();
    auto agent = startAgent();
    const Certificate old = pairAndAwaitFirstCheck(*agent);
    ASSERT_FALSE(HasFailure());

    struct Case {
        const char* fault;
        const char* line;
    };
    std::size_t failures = 0;
    for (const Case c :
         {Case{"500",
               "MqttManager::MakeOTPRequest(): The credential service answered with HTTP status "
               "500"},
          Case{"garbage",
               "CertMonitor::ProcessOTPTokenResponse(): Refreshed credentials response parse "
               "failed."},
          Case{"silent", "CurlHttpRequest::RequestCallback(): No data moved for 2000 ms"}}) {
        SCOPED_TRACE(c.fault);
        restartCredentialService(c.fault);
        const std::size_t seen = agent->countLines(c.line);
        trigger("mqtt_TriggerCertRefresh");
        ASSERT_TRUE(waitUntil([&] { return agent->countLines(kRenewalFailed) > failures; }, 30s))
            << agent->output();
        tokenTaken();
        ++failures;
        EXPECT_GT(agent->countLines(c.line), seen) << agent->output();
        EXPECT_EQ(sendCommand().status, 0) << "the certificate in use no longer works";
    }
    EXPECT_EQ(currentCertificate().serial, old.serial);
    EXPECT_EQ(agent->countLines(kConnected), 1u) << "the session was interrupted";

    restartCredentialService("none");
    trigger("mqtt_TriggerCertSwap");
    ASSERT_TRUE(
        agent->waitForLine("CertMonitor::ActivatePendingCertificate(): Successfully "
                           "swapped the current and pending certificates.",
                           60s))
        << agent->output();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) == 2; }, 30s))
        << agent->output();
    EXPECT_NE(currentCertificate().serial, old.serial);
    EXPECT_EQ(sendCommand().status, 0);
    tokenTaken();

    // Held for as long as the agent allows (a receive share of 120 s).
    regctlSet("mqtt_HubRequestTimeout", "600");
    restartCredentialService("silent");
    trigger("mqtt_TriggerCertRefresh");
    ASSERT_TRUE(credsvc_->waitForLine("holding the request unanswered", 30s)) << credsvc_->output();
    agent->signal(SIGTERM);
    // Generous: this checks for a hang, not a speed.
    EXPECT_EQ(agent->wait(5s), std::optional<int>(0)) << agent->output();
}

}  // namespace
}  // namespace ndpx::test
