// Session logic against a fake client library: topic names, subscriptions,
// connection options and callbacks, publishing rules and inbound dispatch.

#include "config/MqttManagerUtil.h"
#include "fakes/FakeMqttClient.h"
#include "mqtt/MqttManager.h"
#include "support/MqttManagerPeer.h"
#include "support/NoDomain.h"
#include "support/TestRegistry.h"
#include "support/WaitUntil.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

namespace ndpx {
namespace {

using test::FakeMqttState;
using test::TestRegistry;

const std::string kBroker = "ssl://broker.example:8883";
const std::string kStatus = "desktop/e1/vm7/agent/status";
const std::string kCommands = "desktop/e1/vm7/agent/sessions/commands";
const std::string kResponse = "desktop/e1/vm7/agent/sessions/response";

Json::Value parse(const std::string& text) {
    Json::Value v;
    EXPECT_TRUE(MqttManagerUtil::parseJson(text, v)) << text;
    return v;
}

class SessionTest : public ::testing::Test {
protected:
    SessionTest() {
        reg_.setString(kNodeManagerKey, "mqtt_EdgeId", "e1");
        reg_.setString(kNodeManagerKey, "mqtt_VmId", "vm7");
        reg_.setString(kNodeManagerKey, "mqtt_ShortTemplateId", "t3");
        reg_.setString(kNodeManagerKey, "mqtt_AgentIdentity", "e1t3_vm7");
    }
    ~SessionTest() override { manager_->Stop(); }

    MqttManagerDependencies deps() {
        MqttManagerDependencies d;
        d.runRegistrationThread = false;
        d.config = [this] { return cfg_; };
        d.clientFactory = test::fakeClientFactory(fake_);
        d.connectionMaterial = [this]() -> std::optional<ConnectionMaterial> { return material_; };
        d.templateBackends = test::noDomainBackends();
        return d;
    }

    // Started, paired, topics named and connected through the fake.
    void connect() {
        ASSERT_TRUE(manager_->Start());
        peer().markPaired();
        ASSERT_TRUE(manager_->ConfigureTopicNames());
        ASSERT_EQ(manager_->Connect(), 1);
        ASSERT_TRUE(fake_.connectionUp());
        ASSERT_TRUE(fake_.waitSubscribed(5));
    }
    MqttManagerTestPeer peer() { return MqttManagerTestPeer(*manager_); }

    TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    FakeMqttState fake_;
    std::optional<ConnectionMaterial> material_ = ConnectionMaterial{
        .endpointUrl = kBroker,
        .clientId = "e1t3_vm7",
        .bootstrapTopic = "desktop/bootstrap/e1t3_vm7",
        .caCertPem = "CA",
        .clientCertPem = "CLIENT",
        .privateKeyPem = "KEY",
        .publicKeyPem = "-----BEGIN PUBLIC KEY-----\nQUJD\nREVG\n-----END PUBLIC KEY-----\n",
        .chainRootPem = "TOP",
        .systemRootsPem = "ROOTS"};
    std::unique_ptr<MqttManager> manager_ = std::make_unique<MqttManager>(deps());
};

TEST_F(SessionTest, TopicsAreNamedFromEdgeAndMachineOrFromTheIdentity) {
    ASSERT_TRUE(manager_->ConfigureTopicNames());
    auto sub = manager_->subscribeTopics();
    auto pub = manager_->publishTopics();
    EXPECT_EQ(sub.commands, kCommands);
    EXPECT_EQ(sub.configuration, "desktop/e1/t3/configuration");
    EXPECT_EQ(sub.bootstrap, "desktop/bootstrap/e1t3_vm7");
    EXPECT_EQ(pub.desktopStatus, kStatus);
    EXPECT_EQ(pub.eventLogger, "desktop/e1/vm7/agent/eventlogger");

    reg_.store().remove(kNodeManagerKey, "mqtt_EdgeId");
    reg_.setString(kNodeManagerKey, "mqtt_TemplateId", "tmpl");
    ASSERT_TRUE(manager_->ConfigureTopicNames());
    sub = manager_->subscribeTopics();
    EXPECT_EQ(sub.commands, "desktop/e1t3_vm7/agent/sessions/commands");
    EXPECT_EQ(sub.configuration, "desktop/tmpl/configuration");
    EXPECT_EQ(formatTopic("desktop/%s/x", std::string(300, 'a')).size(), 260u);
}

// Connecting uses the configured options (the buffer limit is tested against
// a real broker); all five subscription confirmations move a migration on; a
// lost connection clears them.
TEST_F(SessionTest, ConnectOptionsSubscriptionMaskAndConnectionLoss) {
    reg_.setString(kNodeManagerKey, "mqtt_LWTMessage", "GONE");
    cfg_->setMigrationStatus(1);
    connect();
    EXPECT_EQ(fake_.created.serverUri, kBroker);
    EXPECT_EQ(fake_.created.clientId, "e1t3_vm7");
    EXPECT_EQ(fake_.connected.willTopic, kStatus);
    const Json::Value will = parse(fake_.connected.willPayload);
    EXPECT_EQ(will["status"].asString(), "GONE");
    EXPECT_EQ(will["guid"].asString(), peer().connectionGuid());
    EXPECT_EQ(will.size(), 2u);
    EXPECT_EQ(peer().connectionGuid().size(), 36u);
    struct stat st {};
    ASSERT_EQ(::stat(fake_.connected.privateKeyFile.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(manager_->GetState(), MQTT_STATE_CONNECTED);
    EXPECT_EQ(peer().lastEndpointResult(kBroker), kEndpointConnected);

    const auto confirm = fake_.subscribeCallbacks();
    for (std::size_t i = 0; i + 1 < confirm.size(); ++i) {
        confirm[i](0);
    }
    ASSERT_TRUE(test::waitUntil([&] { return peer().subscribedMask() == 15u; }));
    EXPECT_EQ(cfg_->getMigrationStatus(), 1);  // four of five: unchanged
    confirm.back()(0);
    ASSERT_TRUE(test::waitUntil([&] { return cfg_->getMigrationStatus() == 2; }));
    EXPECT_EQ(peer().subscribedMask(), kAllSubscribed);
    // The template subscription asked for an identity, then the template
    // handler for domain information (this machine is in no domain).
    ASSERT_TRUE(test::waitUntil([&] { return fake_.publishedOn(kStatus).size() == 2; }));
    const auto status = fake_.publishedOn(kStatus);
    EXPECT_EQ(parse(status[0].payload)["status"].asString(), "NEED_ID");
    EXPECT_EQ(status[0].qos, 2);
    EXPECT_EQ(parse(status[1].payload)["status"].asString(), "INIT");

    ASSERT_TRUE(fake_.connectionDown("broker went away"));
    ASSERT_TRUE(test::waitUntil([&] { return manager_->GetState() == MQTT_STATE_NOT_CONNECTED; }));
    EXPECT_EQ(peer().subscribedMask(), 0u);
}

// The library reads its TLS files on every connect; a reconnect rewrites
// only those whose text changed.
TEST_F(SessionTest, AReconnectRewritesOnlyTheTlsFilesThatChanged) {
    connect();
    const std::string trust = fake_.connected.trustStoreFile;
    const std::string cert = fake_.connected.keyStoreFile;
    const auto read = [](const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const auto inode = [](const std::string& file) {
        struct stat st {};
        return ::stat(file.c_str(), &st) == 0 ? st.st_ino : 0;
    };
    EXPECT_EQ(read(trust), "CA\nROOTS");
    const auto trustInode = inode(trust);
    const auto certInode = inode(cert);
    material_->clientCertPem = "CLIENT2";
    ASSERT_EQ(manager_->Connect(), 1);
    EXPECT_EQ(inode(trust), trustInode);
    EXPECT_NE(inode(cert), certInode);
    EXPECT_EQ(read(cert), "CLIENT2");
}

TEST_F(SessionTest, ConnectFailuresAreClassifiedAndRefusedWithoutCallbacksOrMaterial) {
    ASSERT_TRUE(manager_->Start());
    manager_->ConfigureTopicNames();
    ASSERT_EQ(manager_->Connect(), 1);
    fake_.fire([](MqttClientListener& l) {
        l.onConnectFailure({-1, 0, "tls handshake failed", 3});
    });
    EXPECT_TRUE(
        test::waitUntil([&] { return peer().lastEndpointResult(kBroker) == kEndpointTlsFailed; }));
    fake_.fire([](MqttClientListener& l) { l.onConnectFailure({-1, 0, "connection refused", 4}); });
    // Classified off the library's thread (the broker is unreachable here).
    EXPECT_TRUE(
        test::waitUntil([&] { return peer().lastEndpointResult(kBroker) == kEndpointFailed; }));
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::OnConnectionFailure(): MQTT connection failed. Error code: -1. MQTT Reason "
        "Code: 0. Error message: connection refused. Token: 4"));

    fake_.set(&FakeMqttState::attachRc, -3);
    fake_.set(&FakeMqttState::attachStep, 2);
    EXPECT_EQ(manager_->Connect(), 0);
    EXPECT_TRUE(reg_.log().contains("Failed to set reconnected callback, return code -3"));
    fake_.set(&FakeMqttState::attachRc, 0);
    material_.reset();
    EXPECT_EQ(manager_->Connect(), 0);
}

TEST_F(SessionTest, PublishingRefusalsAndRedactedLogging) {
    int token = 0;
    EXPECT_FALSE(manager_->DoPublishMessage("t", "{}", token, 0, false));
    EXPECT_TRUE(reg_.log().contains("Not publishing message, paired state is undetermined"));
    connect();
    EXPECT_FALSE(manager_->DoPublishMessage("", "{}", token, 0, false));
    EXPECT_TRUE(reg_.log().contains("Message topic is empty, unable to publish msg"));

    CORE::PropertyBag update;
    update.set(L"BODY", L"AGENT_UPDATE_NOTIFICATION");
    EXPECT_FALSE(manager_->PublishDesktopNotification(update));
    EXPECT_TRUE(reg_.log().contains("empty properties bag for notification"));

    CORE::PropertyBag event;
    event.set(L"password", L"hunter2");
    event.set(L"EVENT", L"login");
    ASSERT_TRUE(manager_->PublishEvent(event));
    const auto events = fake_.publishedOn("desktop/e1/vm7/agent/eventlogger");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(parse(events[0].payload)["password"].asString(), "hunter2");  // sent as given
    EXPECT_EQ(events[0].qos, 2);
    for (const auto& line : reg_.log().lines()) {
        EXPECT_EQ(line.find("hunter2"), std::string::npos) << line;
    }

    // A local client's message keeps the quality of service and retain flag
    // it asked for.
    ASSERT_TRUE(manager_->PublishIPCMessage("desktop/e1/vm7/local", "{}", 2, true));
    const auto local = fake_.publishedOn("desktop/e1/vm7/local");
    ASSERT_EQ(local.size(), 1u);
    EXPECT_EQ(local[0].qos, 2);
    EXPECT_TRUE(local[0].retained);

    // Refusals count as dropped; what the client takes while the connection
    // is down, as buffered.
    ASSERT_TRUE(fake_.connectionDown("test"));
    ASSERT_TRUE(manager_->PublishIPCMessage("desktop/e1/vm7/local", "{}", 1, false));
    const Json::Value publications = peer().metricDetails()["publications"];
    EXPECT_EQ(publications["buffered"].asUInt64(), 1u);
    EXPECT_EQ(publications["dropped"].asUInt64(), 2u);
    EXPECT_EQ(publications["lostInFlight"].asUInt64(), 0u);

    // "AVAILABLE" carries the key of the client certificate in use.
    Json::Value available;
    manager_->BuildStatusMessage(available, "AVAILABLE", 0, {});
    EXPECT_EQ(available["publicKey"].asString(), "QUJDREVG");
}

// A desktop manager that answers every command with its name and arguments,
// and keeps the certificate settings it is given.
class EchoDesktopManager : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring& op, CORE::PropertyBag& req,
                       CORE::PropertyBag& resp) override {
        if (op == L"SetSSOv2Settings") {
            std::lock_guard lock(mutex);
            ssoRootCa = req.get(L"ROOTCACERT", L"");
        }
        resp = req;
        resp.set(L"HANDLED", op);
        return true;
    }
    static inline std::mutex mutex;
    static inline std::wstring ssoRootCa;
};

class InboundTest : public SessionTest {
protected:
    void SetUp() override {
        CORE::MessageFrameWork::System().AddWorkerEx(
            [](void*) -> std::unique_ptr<CORE::WorkItem> {
                return std::make_unique<EchoDesktopManager>();
            },
            nullptr, L"DesktopManager", L"test", 0, nullptr);
        connect();
    }
    void TearDown() override {
        CORE::MessageFrameWork::System().RemoveWorker(L"DesktopManager", 0);
    }
    void deliver(const std::string& topic, const std::string& payload) {
        ASSERT_TRUE(fake_.fire([&](MqttClientListener& l) { l.onMessageArrived(topic, payload); }));
    }
};

// Redelivered commands are dropped; a dropped bad command is not remembered.
TEST_F(InboundTest, CommandIsAnsweredOnceWithItsIdAndMetadataAndBadOnesAreDropped) {
    deliver(kCommands, R"({"ID":"c1","COMMAND":"GetHostFacts","METADATA":{"req":7},"X":"y"})");
    ASSERT_TRUE(fake_.waitPublished(kResponse, 1));
    deliver(kCommands, R"({"ID":"c1","COMMAND":"GetHostFacts"})");
    deliver(kCommands, R"({"ID":"n1","COMMAND":42})");
    deliver(kCommands, R"({"ID":"n1","COMMAND":"Fixed","METADATA":"not an object"})");
    ASSERT_TRUE(fake_.waitPublished(kResponse, 2));
    const auto answers = fake_.publishedOn(kResponse);
    ASSERT_EQ(answers.size(), 2u);
    const Json::Value first = parse(answers[0].payload);
    EXPECT_EQ(first["ID"].asString(), "c1");
    EXPECT_EQ(first["METADATA"]["req"].asInt(), 7);
    EXPECT_EQ(first["HANDLED"].asString(), "GetHostFacts");
    EXPECT_EQ(first["X"].asString(), "y");
    EXPECT_FALSE(first.isMember("COMMAND"));
    EXPECT_EQ(answers[0].qos, 1);
    const Json::Value second = parse(answers[1].payload);
    EXPECT_EQ(second["ID"].asString(), "n1");
    EXPECT_EQ(second["HANDLED"].asString(), "Fixed");
    EXPECT_FALSE(second.isMember("METADATA"));
    EXPECT_TRUE(reg_.log().contains("Found duplicate message for ID: c1, dropping the message"));
    EXPECT_TRUE(reg_.log().contains("COMMAND object is not a string"));
    EXPECT_EQ(peer().pendingCommandCount(), 0u);
    // For the metrics: every command message, the two answers with their
    // times, the one redelivery.
    Json::Value counted;
    ASSERT_TRUE(test::waitUntil([&] {
        counted = peer().metricDetails()["commands"];
        return counted["answered"].asUInt64() == 2;
    }));
    EXPECT_EQ(counted["received"].asUInt64(), 4u);
    EXPECT_EQ(counted["duplicates"].asUInt64(), 1u);
    EXPECT_EQ(counted["answerLatency"]["count"].asUInt64(), 2u);
}

// An ID is taken as the text it is written as, for the duplicate filter and
// the answer; one that is not valid UTF-8 is refused, never answered under
// an altered ID.
TEST_F(InboundTest, NumericIdsAreTextAndIllFormedIdsAreRefused) {
    deliver(kCommands, R"({"ID":42,"COMMAND":"First"})");
    deliver(kCommands, R"({"ID":"42","COMMAND":"Again"})");
    deliver(kCommands, "{\"ID\":\"bad\xff\",\"COMMAND\":\"Broken\"}");
    deliver(kCommands, R"({"ID":{"x":1},"COMMAND":"Broken"})");
    deliver(kCommands, R"({"ID":"last","COMMAND":"Marker"})");
    ASSERT_TRUE(fake_.waitPublished(kResponse, 2));
    ASSERT_TRUE(
        reg_.log().waitFor("Command ID is neither text nor a number", std::chrono::seconds(10)));
    // The desktop manager answers on two threads: in either order.
    std::map<std::string, Json::Value> ids;
    for (const auto& answer : fake_.publishedOn(kResponse)) {
        const Json::Value json = parse(answer.payload);
        ids[json["HANDLED"].asString()] = json["ID"];
    }
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids["First"], Json::Value("42"));
    EXPECT_EQ(ids["Marker"], Json::Value("last"));
    EXPECT_TRUE(reg_.log().contains("Found duplicate message for ID: 42, dropping the message"));
    EXPECT_TRUE(reg_.log().contains("Command ID is not valid UTF-8, dropping the message"));
    // The desktop manager was given the top of the client certificate's chain.
    std::lock_guard lock(EchoDesktopManager::mutex);
    EXPECT_EQ(EchoDesktopManager::ssoRootCa, L"TOP");
}

TEST_F(InboundTest, TemplateParseErrorsAreReportedOnceAndOtherTopicsDiscarded) {
    deliver("desktop/e1/vm7/agent/receive/dtemplate", R"({"ou":"x","password":"hunter2","x":)");
    deliver(kCommands, "{also not json");
    deliver("desktop/elsewhere", R"({"a":1})");
    deliver("desktop/bootstrap/e1t3_vm7",
            R"({"SessionReportConfig":{"UNWANTEDFIELDS":[],"UNWANTEDSESSIONFIELDS":["A","B"]}})");
    deliver(kCommands, R"({"ID":"last","COMMAND":"Marker"})");  // runs after all of the above
    ASSERT_TRUE(fake_.waitPublished(kResponse, 1));
    const auto status = fake_.publishedOn(kStatus);
    std::size_t parseErrors = 0;
    for (const auto& s : status) {
        parseErrors += parse(s.payload)["status"].asString() == "TEMPLATE_PARSE_ERROR" ? 1 : 0;
    }
    EXPECT_EQ(parseErrors, 1u);
    for (const auto& line : reg_.log().lines()) {
        EXPECT_EQ(line.find("hunter2"), std::string::npos) << line;
    }
    EXPECT_TRUE(reg_.log().contains(
        "MqttManager::OnMessage(): Discarding message for unhandled topic desktop/elsewhere"));
    EXPECT_TRUE(cfg_->getUnwantedFields().empty());
    EXPECT_EQ(cfg_->getUnwantedSessionFields(), (std::vector<std::wstring>{L"A", L"B"}));
}

// A successful StartSession, in any case, is answered with the address and
// listeners; reports run from the bootstrap subscription until the
// connection is lost, and are published without the unwanted fields.
TEST_F(InboundTest, StartSessionGetsHostAndListenersAndReportsFollowTheBootstrapTopic) {
    const std::string configuration = kAgentConfigurationKey;
    reg_.setString(configuration + "\\XMLAPI", "ExternalIPAddress", "203.0.113.5");
    reg_.setString(configuration + "\\Listeners", "tcp", "4172");
    deliver(kCommands, R"({"ID":"s1","COMMAND":"startSESSION"})");
    ASSERT_TRUE(fake_.waitPublished(kResponse, 1));
    const Json::Value answer = parse(fake_.publishedOn(kResponse)[0].payload);
    EXPECT_EQ(answer["PROTOCOL"]["HOST"].asString(), "203.0.113.5");
    EXPECT_EQ(answer["LISTENERS"]["tcp"].asString(), "4172");

    fake_.subscribeCallbacks()[kSubBootstrap](0);
    CORE::PropertyBag report;
    report.set(L"DOMAIN", L"corp");
    report.addBag(L"SESSION", CORE::PropertyBag{});
    report.getBagPtr(1)->set(L"GROUPSIDS", L"S-1");
    report.getBagPtr(1)->set(L"USER", L"ann");
    ASSERT_TRUE(manager_->SendSessionReport(report));
    const auto published = fake_.publishedOn("desktop/e1/vm7/agent/sessions/report");
    ASSERT_EQ(published.size(), 1u);
    EXPECT_EQ(published[0].payload, R"({"SESSION":{"USER":"ann"}})");
    ASSERT_TRUE(fake_.connectionDown("broker went away"));
    EXPECT_TRUE(reg_.log().waitFor("AsyncReportGenerator::Stop(): Stopped Report Generator thread",
                                   std::chrono::seconds(10)));
}

// Endpoint change and healing, with the fake library and real threads.
class EndpointChangeTest : public SessionTest {
protected:
    void SetUp() override {
        reg_.setString(kNodeManagerKey, "mqtt_ReconnectIntervalMin", "5");
        connect();
    }
    bool update(const std::string& endpoint, CORE::PropertyBag& response) {
        CORE::PropertyBag request;
        request.set(L"ENDPOINT", CORE::toWide(endpoint));
        return manager_->UpdateEndpointURL(request, response);
    }
    std::string storedEndpoint() {
        auto v = reg_.store().get(kNodeManagerKey, "mqtt_EndpointUrl");
        return v ? v->text : "";
    }
};

// A bad or unchanged endpoint changes nothing; a new one is tried for its
// attempts, then the old one is restored.
TEST_F(EndpointChangeTest, ANewEndpointIsTriedForItsAttemptsThenRevertedTo) {
    CORE::PropertyBag response;
    EXPECT_FALSE(update("broker.example:8883", response));
    EXPECT_EQ(response.getInt64(CORE::kReplyErrorCode), 87);
    CORE::PropertyBag same;
    EXPECT_TRUE(update(kBroker, same));
    EXPECT_EQ(same.get(L"RESULT", L""), L"UNCHANGED");
    EXPECT_EQ(storedEndpoint(), "");
    CORE::PropertyBag request, props;
    ASSERT_TRUE(manager_->GetEndpointProperties(request, props));
    const CORE::PropertyBag* mqtt = props.getBag(L"mqtt");
    const CORE::PropertyBag* global = mqtt ? mqtt->getBag(L"global") : nullptr;
    ASSERT_NE(global, nullptr);
    EXPECT_EQ(global->get(L"currentEndpoint", L""), CORE::toWide(kBroker));
    EXPECT_EQ(global->get(L"lastAttemptEndpointError", L""), L"0");

    reg_.setString(kNodeManagerKey, "mqtt_EndpointChangeAttempts", "2");
    CORE::PropertyBag pending;
    ASSERT_TRUE(update("ssl://new.example:8883", pending));
    EXPECT_EQ(pending.get(L"RESULT", L""), L"PENDING");
    EXPECT_EQ(storedEndpoint(), "ssl://new.example:8883");
    // The first failure spends one attempt; the second uses the budget up.
    EXPECT_TRUE(manager_->HandleUpdateEndpointRetries(false));
    EXPECT_EQ(storedEndpoint(), "ssl://new.example:8883");
    EXPECT_TRUE(manager_->HandleUpdateEndpointRetries(true));
    EXPECT_EQ(storedEndpoint(), kBroker);
    EXPECT_TRUE(reg_.log().contains("unreachable, reverting to ssl://broker.example:8883"));
    // No change under way any more: failures are for the library to retry.
    EXPECT_FALSE(manager_->HandleUpdateEndpointRetries(false));
}

TEST_F(EndpointChangeTest, RepeatedTlsFailuresHealTheConnection) {
    EXPECT_FALSE(manager_->HandleUpdateEndpointRetries(true));
    EXPECT_FALSE(manager_->HandleUpdateEndpointRetries(true));
    EXPECT_FALSE(reg_.log().contains("MqttManager::HealConnection()"));
    EXPECT_FALSE(manager_->HandleUpdateEndpointRetries(true));
    ASSERT_TRUE(reg_.log().waitFor(
        "MqttManager::HealConnection(): Healing the connection: repeated TLS failures",
        std::chrono::seconds(10)));
    // Healing tells the control plane, then tears the client down.
    ASSERT_TRUE(fake_.waitPublished(kStatus, 1));
    const auto status = fake_.publishedOn(kStatus).back();
    EXPECT_EQ(parse(status.payload)["status"].asString(), "UNAVAILABLE");
    EXPECT_EQ(parse(status.payload)["errMsg"].asString(), "repeated TLS failures");
    EXPECT_EQ(status.qos, 0);
}

}  // namespace
}  // namespace ndpx
