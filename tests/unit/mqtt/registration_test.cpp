// The registration thread in virtual time: the back-off between failed
// passes, and the return to bootstrap after broken cached pairing data. The
// message transport during a migration and at its commit.

#include "fakes/FakeMqttClient.h"
#include "mqtt/MqttManager.h"
#include "support/ManualTimeSource.h"
#include "support/MqttManagerPeer.h"
#include "support/StubWorker.h"
#include "support/TestRegistry.h"

#include <mfw/corestring.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

namespace ndpx {
namespace {

using namespace std::chrono_literals;
using test::kNodeManagerKey;

class RegistrationTest : public ::testing::Test {
protected:
    RegistrationTest() {
        reg_.setString(kNodeManagerKey, "mqtt_StartupMaxJitter", "0");  // exact waits
    }
    ~RegistrationTest() override { manager_->Stop(); }

    void start(std::shared_ptr<CredentialRequester> credentials = {}) {
        MqttManagerDependencies d;
        d.time = &clock_;
        d.config = [this] { return cfg_; };
        d.clientFactory = test::fakeClientFactory(fake_);
        d.credentials = std::move(credentials);
        manager_ = std::make_unique<MqttManager>(d);
        ASSERT_TRUE(manager_->Start());
    }
    // Moves virtual time once the registration thread (and the duplicate
    // filter's timer) are asleep on the clock, so the move is not missed.
    void advance(std::chrono::seconds by) {
        ASSERT_TRUE(clock_.awaitWaiters(2));
        clock_.advance(by);
    }
    // An unreadable provisioning file that is kept: step 1 fails every pass.
    void provisionBrokenFile() {
        reg_.setString(kNodeManagerKey, "mqtt_DeleteLCMSpec", "false");
        const auto file = mqttConfig::cloudProvisioningFilePath();
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << "{broken";
        ::chmod(file.c_str(), 0600);
    }
    // The queue messages the desktop manager received, as "operation QUEUE".
    std::vector<std::string> queueMessages() {
        std::vector<std::string> out;
        while (auto m = desktopManager_.nextMessage(200ms)) {
            out.push_back(CORE::toUtf8(m->operation + L" " + m->request.get(L"QUEUE", L"")));
        }
        return out;
    }
    std::string transport() {
        const auto v = reg_.store().get(kNodeManagerKey, "MS Transport");
        return v ? v->asText() : "";
    }
    // The wait set after the n-th failed pass.
    bool waitedFor(int seconds, std::size_t n = 1) {
        return reg_.log().waitFor("Wait interval set to " + std::to_string(seconds) + " secs", 10s,
                                  n);
    }

    test::TestRegistry reg_;
    test::StubWorker desktopManager_{L"DesktopManager"};
    test::ManualTimeSource clock_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::FakeMqttState fake_;
    std::unique_ptr<MqttManager> manager_;
};

TEST_F(RegistrationTest, AFailingPassIsRetriedAfterADoublingWaitInVirtualTime) {
    provisionBrokenFile();
    start();

    ASSERT_TRUE(waitedFor(10));
    const auto failures = [&] { return reg_.log().count("Registration failed, will restart."); };
    EXPECT_EQ(failures(), 1u);
    advance(9s);
    EXPECT_FALSE(reg_.log().waitFor("Wait interval set to 20 secs", 100ms));
    EXPECT_EQ(failures(), 1u);  // no new pass before the wait is over
    advance(1s);
    ASSERT_TRUE(waitedFor(20));
    advance(20s);
    ASSERT_TRUE(waitedFor(40));
    EXPECT_EQ(failures(), 3u);
    EXPECT_EQ(reg_.log().count("Unable to read LCM spec despite it existing!"), 3u);
}

// Stop then Start in one process runs the chain again from a clean slate: a
// reboot asked for in the first run does not end the second.
TEST_F(RegistrationTest, AStopAndStartRunsTheChainAgainWithFreshRunValues) {
    provisionBrokenFile();
    start();
    ASSERT_TRUE(waitedFor(10));
    manager_->requestReboot();
    ASSERT_TRUE(manager_->Stop());
    ASSERT_TRUE(manager_->Start());
    ASSERT_TRUE(waitedFor(10, 2));
    EXPECT_EQ(reg_.log().count("Reboot requested, stopping registration thread."), 0u);

    // A later pass that has nothing to store keeps the pairing it had, as
    // far as the stores still hold it (here: nothing).
    MqttManagerTestPeer peer(*manager_);
    EXPECT_FALSE(peer.storeWithNothingParsed());
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::StorePairingData(): Previous pairing data could not be read back"));
    EXPECT_FALSE(peer.paired());
}

// A credential service that holds the request does not hold up a stop: the
// request is cancelled.
TEST_F(RegistrationTest, StoppingCancelsACredentialRequestInFlight) {
    class HeldRequester : public CredentialRequester {
    public:
        bool request(const OtpRequest&, std::string&, CORE::coreevent& abort) override {
            entered_.set();
            cancelled_ = abort.wait(30s);
            return false;
        }
        bool waitEntered() { return entered_.wait(30s); }
        bool cancelled() const { return cancelled_.load(); }

    private:
        CORE::coreevent entered_;
        std::atomic<bool> cancelled_{false};
    };
    // Complete provisioning values: the chain pairs without a spec file.
    for (const auto& [name, value] : {std::pair{"mqtt_VmId_pend", "vm7"},
                                      {"mqtt_ShortTemplateId_pend", "t3"},
                                      {"mqtt_EdgeId_pend", "e1"},
                                      {"mqtt_AgentIdentity_pend", "e1t3_vm7"},
                                      {"mqtt_OtpUrl", "https://hub.example/otp"},
                                      {"mqtt_Otp", "one-time"}}) {
        reg_.setString(kNodeManagerKey, name, value);
    }
    auto requester = std::make_shared<HeldRequester>();
    start(requester);
    ASSERT_TRUE(requester->waitEntered());
    auto stopped = std::async(std::launch::async, [&] { return manager_->Stop(); });
    ASSERT_EQ(stopped.wait_for(20s), std::future_status::ready) << "Stop waited for the service";
    EXPECT_TRUE(requester->cancelled());
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::RequestCredentials(): Failed to register with REST API."));
    // Cancelled by the stop, not a failed pass.
    EXPECT_EQ(reg_.log().count("Registration failed, will restart."), 0u);
}

TEST_F(RegistrationTest, BrokenCachedPairingDataLeadsBackToBootstrap) {
    // An identity without pairing data: step 3 fails every pass.
    reg_.setString(kNodeManagerKey, "mqtt_VmId", "vm7");
    reg_.setString(kNodeManagerKey, "mqtt_AgentIdentity", "e1t3_vm7");
    reg_.setString(kNodeManagerKey, "mqtt_EdgeId", "e1");
    reg_.setString(kNodeManagerKey, "mqtt_ShortTemplateId", "t3");
    reg_.setString(kNodeManagerKey, "mqtt_StartupMaxCachedRetries", "2");
    start();
    ASSERT_TRUE(waitedFor(10));
    advance(10s);
    ASSERT_TRUE(waitedFor(20));
    advance(20s);
    ASSERT_TRUE(reg_.log().waitFor(
        "Failed to retrieve and validate cached pairing data after 2 retries, will bootstrap.",
        10s));
    EXPECT_EQ(reg_.log().count("Missing some pairing configuration, will retry."), 2u);
    ASSERT_TRUE(waitedFor(40));
    advance(40s);
    // The identity is gone: only a new provisioning file can start pairing.
    EXPECT_TRUE(
        reg_.log().waitFor("MqttManager::SetState(): State: MQTT_STATE_WAITING_CONFIG", 10s));
    EXPECT_EQ(cfg_->getAgentIdentity(), "");
}

// While a migration runs MQTT joins the notify queue beside the older
// transport; only the commit registers it and removes the bridge, so the
// commit's own check does not find the agent already on MQTT.
TEST_F(RegistrationTest, DuringAMigrationOnlyTheCommitMakesMqttTheTransport) {
    reg_.setString(kNodeManagerKey, "MS Transport", "JMS");
    cfg_->setMigrationStatus(static_cast<int>(MigrationStatus::Bootstrap));
    start();  // no spec yet: the thread waits for one and sends nothing
    ASSERT_TRUE(manager_->RegisterMessageTransport());
    EXPECT_EQ(queueMessages(), std::vector<std::string>{"NotifyQueueAdd MQTT"});
    EXPECT_EQ(transport(), "JMS");

    cfg_->setMigrationStatus(static_cast<int>(MigrationStatus::Commit));
    ASSERT_TRUE(manager_->CommitMessageTransport());
    EXPECT_EQ(queueMessages(), (std::vector<std::string>{"NotifyQueueAdd MQTT",
                                                         "NotifyQueueRegisterMessageTransport MQTT",
                                                         "NotifyQueueRemove JMSBridge"}));
    EXPECT_EQ(transport(), "MQTT");
    EXPECT_TRUE(reg_.log().contains("Replacing JMS message transport with MQTT"));

    // Committed: the chain's next pass has nothing to do.
    cfg_->setMigrationStatus(static_cast<int>(MigrationStatus::CommitComplete));
    ASSERT_TRUE(manager_->RegisterMessageTransport());
    EXPECT_TRUE(queueMessages().empty());
    EXPECT_TRUE(
        reg_.log().contains("Skipping Message Transport registration. Already registered."));

    // Back to requiring a bootstrap: the module leaves the notify queue.
    manager_->RevertToRequireBootstrap(true);
    EXPECT_EQ(queueMessages(), std::vector<std::string>{"NotifyQueueRemove MQTT"});
}

// A bootstrap written while the module waits quiesced beside the older
// transport is looked at at once, not after the quiesced interval.
TEST_F(RegistrationTest, AWrittenBootstrapEndsTheQuiescedWait) {
    reg_.setString(kNodeManagerKey, "MS Transport", "JMS");
    start();
    ASSERT_TRUE(reg_.log().waitFor("MqttManager::WaitForLCMGeneratedSpec(): Quiesced", 10s));
    ASSERT_TRUE(clock_.awaitWaiters(2));
    cfg_->setMigrationStatus(static_cast<int>(MigrationStatus::Bootstrap));
    manager_->WakeRegistration();
    EXPECT_TRUE(
        reg_.log().waitFor("MqttManager::SetState(): State: MQTT_STATE_WAITING_CONFIG", 10s));
    EXPECT_EQ(reg_.log().count("MqttManager::WaitForLCMGeneratedSpec(): Quiesced"), 1u);
}

// A pass that fails while a migration runs marks the bootstrap failed; the
// module then waits, quiesced, for a rollback.
TEST_F(RegistrationTest, AFailedPassDuringAMigrationMarksTheBootstrapFailed) {
    reg_.setString(kNodeManagerKey, "MS Transport", "JMS");
    reg_.setString(kNodeManagerKey, "mqtt_DeleteLCMSpec", "false");
    cfg_->setMigrationStatus(static_cast<int>(MigrationStatus::Bootstrap));
    const auto file = mqttConfig::lcmSpecFilePath();
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "{broken";
    start();
    ASSERT_TRUE(waitedFor(10));
    EXPECT_EQ(cfg_->getMigrationStatus(), static_cast<int>(MigrationStatus::BootstrapFailed));
    advance(10s);
    EXPECT_TRUE(reg_.log().waitFor("MqttManager::WaitForLCMGeneratedSpec(): Quiesced", 10s));
    EXPECT_EQ(reg_.log().count("Registration failed, will restart."), 1u);
}

}  // namespace
}  // namespace ndpx
