// The MQTT session against a real broker with TLS and required client
// certificates: connecting, subscriptions, commands and their answers, TLS
// refusal, and surviving a broker restart without losing buffered messages.

#include "config/MqttManagerUtil.h"
#include "mqtt/MqttManager.h"
#include "support/MosquittoBroker.h"
#include "support/MqttManagerPeer.h"
#include "support/MqttTestClient.h"
#include "support/NoDomain.h"
#include "support/TestRegistry.h"
#include "support/WaitUntil.h"

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;
using test::kNodeManagerKey;

const std::string kIdentity = "e1t3_vm7";
const std::string kDesktop = "desktop/e1/vm7/agent/";

class EchoDesktopManager : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring& op, CORE::PropertyBag& req,
                       CORE::PropertyBag& resp) override {
        resp = req;
        resp.set(L"HANDLED", op);
        return true;
    }
};

Json::Value parse(const std::string& text) {
    Json::Value v;
    EXPECT_TRUE(MqttManagerUtil::parseJson(text, v)) << text;
    return v;
}

class SessionBrokerTest : public ::testing::Test {
protected:
    SessionBrokerTest() {
        for (const auto& [name, value] : {std::pair{"mqtt_EdgeId", "e1"},
                                          {"mqtt_VmId", "vm7"},
                                          {"mqtt_ShortTemplateId", "t3"},
                                          {"mqtt_AgentIdentity", kIdentity.c_str()}}) {
            reg_.setString(kNodeManagerKey, name, value);
        }
        CORE::MessageFrameWork::System().AddWorkerEx(
            [](void*) -> std::unique_ptr<CORE::WorkItem> {
                return std::make_unique<EchoDesktopManager>();
            },
            nullptr, L"DesktopManager", L"test", 0, nullptr);
        EXPECT_TRUE(controlPlane_.connect()) << controlPlane_.lastError();
        EXPECT_TRUE(controlPlane_.subscribe(kDesktop + "#", 1));
    }
    ~SessionBrokerTest() override {
        if (manager_) {
            manager_->Stop();
        }
        CORE::MessageFrameWork::System().RemoveWorker(L"DesktopManager", 0);
    }

    ConnectionMaterial material(const test::ClientPem& client) {
        return {.endpointUrl = "ssl://127.0.0.1:" + std::to_string(broker_.port()),
                .clientId = kIdentity,
                .bootstrapTopic = "desktop/bootstrap/" + kIdentity,
                .caCertPem = broker_.caPem(),
                .clientCertPem = client.certPem,
                .privateKeyPem = client.keyPem};
    }

    void startAgent(ConnectionMaterial m) {
        material_ = std::move(m);
        MqttManagerDependencies d;
        d.runRegistrationThread = false;
        d.config = [this] { return cfg_; };
        d.connectionMaterial = [this] { return std::optional(material_); };
        d.templateBackends = test::noDomainBackends();
        manager_ = std::make_unique<MqttManager>(d);
        ASSERT_TRUE(manager_->Start());
        MqttManagerTestPeer(*manager_).markPaired();
        ASSERT_TRUE(manager_->ConfigureTopicNames());
        ASSERT_EQ(manager_->Connect(), 1);
    }

    bool subscribedAll(std::size_t times = 1) {
        return reg_.log().waitFor(
            "MqttManager::OnSubscribeSuccess(): Successfully subscribed to topic: desktop/e1/vm7/"
            "agent/credentials/token",
            20s, times);
    }

    void command(const std::string& json) {
        ASSERT_TRUE(controlPlane_.publish(kDesktop + "sessions/commands", json, 1));
    }
    // The next answer to the command `id`; answers to others stay queued.
    std::optional<Json::Value> answerTo(const std::string& id,
                                        std::chrono::milliseconds limit = 10s) {
        const auto m = controlPlane_.waitForMessage(
            kDesktop + "sessions/response",
            [&](const devcloud::Message& msg) { return parse(msg.payload)["ID"].asString() == id; },
            limit);
        return m ? std::optional(parse(m->payload)) : std::nullopt;
    }

    static devcloud::ClientOptions controlPlaneOptions(test::MosquittoBroker& broker) {
        auto o = broker.clientOptions("control-plane");
        o.cleanStart = false;
        o.sessionExpirySeconds = 600;  // keeps its subscription across a broker restart
        o.automaticReconnect = true;
        return o;
    }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::MosquittoBroker broker_;
    test::MqttTestClient controlPlane_{controlPlaneOptions(broker_)};
    ConnectionMaterial material_;
    std::unique_ptr<MqttManager> manager_;
};

// A paired agent answers each command once; when the broker restarts it
// reconnects, resubscribes, delivers what it buffered and still drops
// redelivered commands.
TEST_F(SessionBrokerTest, PairedAgentAnswersEachCommandOnceAndSurvivesABrokerRestart) {
    reg_.setString(kNodeManagerKey, "mqtt_MaxBufferedMessages", "3");
    startAgent(material(broker_.issueClient(kIdentity)));
    ASSERT_TRUE(subscribedAll());
    EXPECT_EQ(MqttManagerTestPeer(*manager_).subscribedMask(), kAllSubscribed);
    EXPECT_EQ(manager_->GetState(), MQTT_STATE_CONNECTED);
    const auto needId = controlPlane_.waitForPayload(kDesktop + "status");
    ASSERT_TRUE(needId);
    EXPECT_EQ(parse(*needId)["status"].asString(), "NEED_ID");

    command(R"({"ID":"c1","COMMAND":"GetHostFacts","METADATA":{"req":7}})");
    const auto answer = answerTo("c1");
    ASSERT_TRUE(answer);
    EXPECT_EQ((*answer)["METADATA"]["req"].asInt(), 7);
    EXPECT_EQ((*answer)["HANDLED"].asString(), "GetHostFacts");
    command(R"({"ID":"c1","COMMAND":"GetHostFacts"})");  // redelivered: dropped
    command(R"({"ID":"marker","COMMAND":"Echo"})");      // handled after the redelivery
    ASSERT_TRUE(answerTo("marker"));
    EXPECT_FALSE(answerTo("c1", 200ms));

    broker_.kill();
    ASSERT_TRUE(reg_.log().waitFor("MqttManager::OnConnectionLost(): Connection lost", 20s));
    for (int i = 1; i <= 5; ++i) {
        CORE::PropertyBag event;
        event.setInt(L"N", i);
        EXPECT_TRUE(manager_->PublishEvent(event));  // accepted and buffered
    }
    broker_.restart();
    ASSERT_TRUE(subscribedAll(2)) << broker_.log();
    // Only the newest three fit the buffer; the oldest were dropped.
    std::vector<int> seen;
    while (auto payload = controlPlane_.waitForPayload(kDesktop + "eventlogger", 3s)) {
        seen.push_back(std::stoi(parse(*payload)["N"].asString()));
    }
    EXPECT_EQ(seen, (std::vector<int>{3, 4, 5}));
    command(R"({"ID":"c1","COMMAND":"GetHostFacts"})");  // still a duplicate
    command(R"({"ID":"after","COMMAND":"Echo"})");
    ASSERT_TRUE(answerTo("after"));
    EXPECT_FALSE(answerTo("c1", 200ms));
}

// Under TLS 1.3 the broker judges the client certificate after the client's
// handshake is done, and the library reports a plain connection failure: the
// agent still has to record it as a TLS refusal.
TEST_F(SessionBrokerTest, ACertificateFromAnotherAuthorityFailsAsATlsFailure) {
    auto stranger = devca::CertificateAuthority::createRoot("Stranger CA");
    auto issued = stranger.issueClient(kIdentity);
    startAgent(material({issued.certPem, issued.keyPem}));
    const std::string endpoint = "ssl://127.0.0.1:" + std::to_string(broker_.port());
    ASSERT_TRUE(
        reg_.log().waitFor("MqttManager::OnConnectionFailure(): MQTT connection failed", 20s))
        << broker_.log();
    // The agent repeats the handshake to classify the failure, then records it.
    EXPECT_TRUE(test::waitUntil(
        [&] { return MqttManagerTestPeer(*manager_).lastEndpointResult(endpoint) != -1; }));
    EXPECT_EQ(MqttManagerTestPeer(*manager_).lastEndpointResult(endpoint), kEndpointTlsFailed);
    EXPECT_NE(manager_->GetState(), MQTT_STATE_CONNECTED);
}

}  // namespace
}  // namespace ndpx
