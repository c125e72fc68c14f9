// A migration walked with the real manager against a real broker: the
// bootstrap starts the session beside the older transport, the fifth
// subscription marks it connected, a rollback stops it and leaves the notify
// queue, a second bootstrap and a commit hand the transport over.

#include "certs/CertificateUtil.h"
#include "migration/MigrationManager.h"
#include "mqtt/MqttManager.h"
#include "support/MosquittoBroker.h"
#include "support/MqttManagerPeer.h"
#include "support/StubWorker.h"
#include "support/TestRegistry.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;
using test::kNodeManagerKey;

const std::string kIdentity = "e1t3_vm7";

// The session as the plug-in gives it to the migration; its start also does
// what the registration flow does once it has paired with the bootstrap.
class BrokerSession : public migration::MigrationSession {
public:
    BrokerSession(MqttManager& manager, test::TestRegistry& reg) : manager_(manager), reg_(reg) {}
    bool Start() override {
        reg_.setString(kNodeManagerKey, "mqtt_VmId", "vm7");
        reg_.setString(kNodeManagerKey, "mqtt_AgentIdentity", kIdentity);
        const bool ok = manager_.Start();
        MqttManagerTestPeer(manager_).markPaired();
        return ok && manager_.ConfigureTopicNames() && manager_.Connect() == 1;
    }
    bool Stop() override { return manager_.Stop(); }
    bool IsStarted() override { return manager_.IsStarted(); }
    bool IsConnected() override { return manager_.IsConnected(); }
    void BootstrapWritten() override { manager_.WakeRegistration(); }
    bool RegisterMessageTransport() override { return manager_.CommitMessageTransport(); }
    void RevertToRequireBootstrap() override { manager_.RevertToRequireBootstrap(true); }

private:
    MqttManager& manager_;
    test::TestRegistry& reg_;
};

class MigrationBrokerTest : public ::testing::Test {
protected:
    MigrationBrokerTest() {
        for (const auto& [name, value] : {std::pair{"MS Transport", "JMS"},
                                          {"mqtt_EdgeId", "e1"},
                                          {"mqtt_ShortTemplateId", "t3"}}) {
            reg_.setString(kNodeManagerKey, name, value);
        }
        const auto client = broker_.issueClient(kIdentity);
        material_ = {.endpointUrl = "ssl://127.0.0.1:" + std::to_string(broker_.port()),
                     .clientId = kIdentity,
                     .bootstrapTopic = "desktop/bootstrap/" + kIdentity,
                     .caCertPem = broker_.caPem(),
                     .clientCertPem = client.certPem,
                     .privateKeyPem = client.keyPem};
    }
    ~MigrationBrokerTest() override { manager_.Stop(); }

    CORE::PropertyBag send(const wchar_t* type, int expected) {
        CORE::PropertyBag request, reply;
        request.set(L"type", type);
        request.set(L"bootstrap", LR"({"vmId":"vm7"})");
        EXPECT_EQ(migration_.ProcessMigrationMessage(request, reply), expected)
            << CORE::toUtf8(type) << ": " << CORE::toUtf8(reply.get(CORE::kReplyErrorText, L""));
        return reply;
    }
    std::wstring status() { return send(L"getstatus", 1).get(L"status", L""); }
    // Written once the fifth subscription is confirmed after a bootstrap.
    bool connectedAfterBootstrap(std::size_t times) {
        return reg_.log().waitFor("Set migration status to connected", 20s, times);
    }
    // The queue messages the desktop manager received, as "operation QUEUE".
    std::vector<std::string> queueMessages() {
        std::vector<std::string> out;
        while (auto m = desktopManager_.nextMessage(300ms)) {
            if (m->operation.starts_with(L"NotifyQueue")) {
                out.push_back(CORE::toUtf8(m->operation + L" " + m->request.get(L"QUEUE", L"")));
            }
        }
        return out;
    }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::MosquittoBroker broker_;
    test::StubWorker desktopManager_{L"DesktopManager"};
    test::StubWorker daasAgent_{L"DaasAgent"};
    ConnectionMaterial material_;
    MqttManager manager_{[this] {
        MqttManagerDependencies d;
        d.runRegistrationThread = false;
        d.config = [this] { return cfg_; };
        d.connectionMaterial = [this] { return std::optional(material_); };
        return d;
    }()};
    BrokerSession session_{manager_, reg_};
    migration::MigrationManager migration_{session_, [this] { return cfg_; },
                                           std::make_shared<certs::CertificateUtil>()};
};

TEST_F(MigrationBrokerTest, RollbackThenBootstrapAgainAndCommit) {
    send(L"bootstrap", 1);
    ASSERT_TRUE(connectedAfterBootstrap(1));
    EXPECT_EQ(status(), L"connected");

    send(L"rollback", 1);
    EXPECT_EQ(status(), L"notstarted");
    EXPECT_FALSE(manager_.IsStarted());
    EXPECT_FALSE(manager_.IsConnected());
    EXPECT_EQ(queueMessages(), std::vector<std::string>{"NotifyQueueRemove MQTT"});
    EXPECT_EQ(cfg_->getAgentIdentity(), "");

    send(L"bootstrap", 1);
    ASSERT_TRUE(connectedAfterBootstrap(2));
    send(L"commit", 1);
    EXPECT_EQ(status(), L"commitcomplete");
    EXPECT_EQ(queueMessages(), (std::vector<std::string>{"NotifyQueueAdd MQTT",
                                                         "NotifyQueueRegisterMessageTransport MQTT",
                                                         "NotifyQueueRemove JMSBridge"}));
    const auto shutdown = daasAgent_.nextMessage();
    ASSERT_TRUE(shutdown);
    EXPECT_EQ(shutdown->operation, L"ShutdownNotify");
    EXPECT_EQ(cfg_->getMsTransport(), L"MQTT");

    // On MQTT now: everything but "getstatus" is refused.
    const auto refused = send(L"rollback", 0);
    EXPECT_EQ(refused.getInt64(CORE::kReplyErrorCode), migration::kErrorRefused);
    EXPECT_TRUE(manager_.IsConnected());
}

}  // namespace
}  // namespace ndpx
