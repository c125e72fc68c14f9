// The bridge's logic over a scripted transport: admission by include list,
// topic ownership, the publish checks, forwarding, close and bootstrap.

#include "config/mqttConfig.h"
#include "ipc/IPCManager.h"
#include "support/TestRegistry.h"

#include <mfw/corestring.h>

#include <gtest/gtest.h>

#include <json/reader.h>

#include <mutex>

namespace ndpx {
namespace {

using test::kNodeManagerKey;

class ScriptedStream : public ipc::IpcStream {
public:
    explicit ScriptedStream(std::uint32_t pid) : pid_(pid) {}
    std::uint32_t peerProcessId() const override { return pid_; }
    std::optional<platform::PeerCredentials> peerCredentials() const override {
        return platform::PeerCredentials{0, 0, static_cast<std::int32_t>(pid_)};
    }
    bool peerConnected() const override { return true; }
    std::string name() const override { return "stream-" + std::to_string(pid_); }
    int sendAsync(std::vector<std::uint8_t> message, Completion done) override {
        std::lock_guard lock(mutex_);
        sent.emplace_back(message.begin(), message.end());
        done(true);
        return ipc::status::kOk;
    }
    void close(std::chrono::milliseconds) override { closed = true; }

    // The payloads sent on `topic`, decoded.
    std::vector<std::string> payloads(const std::string& topic) {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& raw : sent) {
            EXPECT_EQ(raw.substr(raw.size() - 2), std::string("\n\0", 2));
            Json::Value v;
            std::istringstream in(raw.substr(0, raw.size() - 1));
            EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr));
            if (v["topic"] == topic && v["type"] == "message") {
                const auto bytes = CORE::base64Decode(v["message"].asString());
                out.emplace_back(bytes->begin(), bytes->end());
            }
        }
        return out;
    }

    std::vector<std::string> sent;
    bool closed = false;

private:
    std::uint32_t pid_;
    std::mutex mutex_;
};

class RecordingMqtt : public IpcMqttSide {
public:
    void subscribeIpcTopic(const std::string& t) override { subscribed.push_back(t); }
    void unsubscribeIpcTopic(const std::string& t) override { unsubscribed.push_back(t); }
    bool publishIpcMessage(const std::string& topic, const std::string& payload, int qos,
                           bool retain) override {
        published.push_back(topic + "|" + payload + "|" + std::to_string(qos) + "|" +
                            (retain ? "r" : "-"));
        return true;
    }
    std::vector<std::string> subscribed, unsubscribed, published;
};

// The transport's listener, holding the events for the test to raise.
class ScriptedListener : public ipc::IpcListener {
public:
    int setAccepting() override { return ipc::status::kOk; }
    int close() override { return ipc::status::kOk; }
};

class IpcManagerTest : public ::testing::Test {
protected:
    IpcManagerTest() {
        IPCManager::Dependencies deps;
        deps.config = [this] { return cfg_; };
        deps.transport = [this](ipc::IpcLogSink sink, std::shared_ptr<ipc::IpcContext>& out) {
            sink({2, "Lib::fn", "a library error"});
            out = std::make_shared<Context>(*this);
            return ipc::status::kOk;
        };
        deps.processBaseName = [this](const ipc::IpcStreamPtr& s) -> std::optional<std::string> {
            const auto it = names_.find(s->peerProcessId());
            return it == names_.end() ? std::nullopt : std::optional(it->second);
        };
        manager_ = std::make_unique<IPCManager>(deps);
        cfg_->setEdgeId("e1");
        cfg_->setShortTemplateId("t3");
        cfg_->setVmId("vm7");
        cfg_->setAgentIdentity("e1t3_vm7");
    }
    ~IpcManagerTest() override { manager_->Stop(); }

    struct Context : ipc::IpcContext {
        explicit Context(IpcManagerTest& t) : test(t) {}
        int listen(const std::string& guid, ipc::ListenerCallbacks cb,
                   std::shared_ptr<ipc::IpcListener>& out) override {
            test.guid_ = guid;
            test.events_ = std::move(cb);
            out = std::make_shared<ScriptedListener>();
            return ipc::status::kOk;
        }
        IpcManagerTest& test;
    };

    void allow(const std::string& name, const std::string& data) {
        reg_.shared()->set(std::string(kNodeManagerKey) + "\\ipcincludelist", name,
                           platform::SettingValue::ofString(data));
    }
    // A process connecting: admitted or not.
    std::shared_ptr<ScriptedStream> connect(std::uint32_t pid, const std::string& name,
                                            bool* admitted = nullptr) {
        names_[pid] = name;
        auto stream = std::make_shared<ScriptedStream>(pid);
        const bool ok = events_.connectRequest(stream);
        if (ok) {
            events_.connectAccepted(stream);
        }
        if (admitted != nullptr) {
            *admitted = ok;
        }
        return stream;
    }
    void send(const std::shared_ptr<ScriptedStream>& s, const std::string& text) {
        ipc::IpcMessage m;
        m.data = reinterpret_cast<const std::uint8_t*>(text.data());
        m.size = text.size();
        events_.received(s, m);
    }
    void closeStream(const std::shared_ptr<ScriptedStream>& s) {
        events_.received(s, ipc::IpcMessage{0, nullptr, 0});
    }
    bool logged(const std::string& text) { return reg_.log().contains(text); }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    std::map<std::uint32_t, std::string> names_;
    std::string guid_;
    ipc::ListenerCallbacks events_;
    RecordingMqtt mqtt_;
    std::unique_ptr<IPCManager> manager_;
};

// Admission: an empty list, a missing name and a "0" entry refuse; any other
// data admits, and the admitted process is told the identity at once. The
// transport's own log records reach the host log at the mapped level.
TEST_F(IpcManagerTest, TheIncludeListAdmitsAndTheAdmittedLearnTheIdentity) {
    ASSERT_TRUE(manager_->Start(mqtt_));
    EXPECT_EQ(guid_, "{1CA68F57-44E0-4475-8065-A32557C79A56}");
    EXPECT_TRUE(logged("Lib::fn(): a library error"));
    bool admitted = true;
    connect(10, "tool", &admitted);
    EXPECT_FALSE(admitted);
    EXPECT_TRUE(logged("No entries in includelist, rejecting request"));
    allow("tool", "0");
    allow("other", "");
    connect(11, "stranger", &admitted);
    EXPECT_FALSE(admitted);
    EXPECT_TRUE(logged("The process is not in includelist, rejecting request"));
    connect(12, "tool", &admitted);
    EXPECT_FALSE(admitted);
    EXPECT_TRUE(logged("The process is in includelist but has been disabled"));
    const auto ok = connect(13, "other", &admitted);
    EXPECT_TRUE(admitted);
    const auto boot = ok->payloads("core");
    ASSERT_EQ(boot.size(), 1u);
    EXPECT_EQ(
        boot[0],
        R"({"data":{"edgeid":"e1","identity":"e1t3_vm7","shorttemplateid":"t3","vmid":"vm7"},"type":"setidentity","version":1})");

    cfg_->setAgentIdentity("e2t9_vm7");
    manager_->OnBootstrapRequired();
    ASSERT_EQ(ok->payloads("core").size(), 2u);
    EXPECT_NE(ok->payloads("core")[1].find("e2t9_vm7"), std::string::npos);
}

// The first subscriber owns a topic and gets its messages; a second one is
// ignored until the first goes, when its topics are unsubscribed and free.
// The table survives a reconnect.
TEST_F(IpcManagerTest, TheFirstSubscriberOwnsATopicUntilItCloses) {
    allow("tool", "1");
    ASSERT_TRUE(manager_->Start(mqtt_));
    const auto first = connect(20, "tool");
    const auto second = connect(21, "tool");
    send(first, R"({"type":"subscribe","topics":"a/1,b/2"})");
    send(second, R"({"type":"subscribe","topics":"b/2,c/3"})");
    EXPECT_EQ(mqtt_.subscribed, (std::vector<std::string>{"a/1", "b/2", "c/3"}));
    EXPECT_TRUE(logged("Topic already subscribed, ignoring b/2"));
    EXPECT_TRUE(manager_->ownsTopic("b/2"));
    manager_->OnMQTTMessage("b/2", "hello");
    EXPECT_EQ(first->payloads("b/2"), std::vector<std::string>{"hello"});
    EXPECT_TRUE(second->payloads("b/2").empty());

    mqtt_.subscribed.clear();
    manager_->SubscribeToTopics();
    EXPECT_EQ(mqtt_.subscribed.size(), 3u);

    closeStream(first);
    EXPECT_TRUE(first->closed);
    std::sort(mqtt_.unsubscribed.begin(), mqtt_.unsubscribed.end());
    EXPECT_EQ(mqtt_.unsubscribed, (std::vector<std::string>{"a/1", "b/2"}));
    EXPECT_FALSE(manager_->ownsTopic("a/1"));
    send(second, R"({"type":"subscribe","topics":"b/2"})");
    manager_->OnMQTTMessage("b/2", "again");
    EXPECT_EQ(second->payloads("b/2"), std::vector<std::string>{"again"});

    // A process holds at most 256 topics, each at most 1024 bytes long.
    std::string many;
    for (int i = 0; i < 300; ++i) {
        many += "m/" + std::to_string(i) + ",";
    }
    send(second, R"({"type":"subscribe","topics":")" + many + std::string(1025, 'x') + "\"}");
    EXPECT_TRUE(manager_->ownsTopic("m/253"));  // with b/2 and c/3: 256
    EXPECT_FALSE(manager_->ownsTopic("m/254"));
    EXPECT_TRUE(logged("may hold 256 topics of at most 1024 bytes each"));
}

// A publish is checked in order and refused with its line; a good one goes
// out with the decoded payload, its QoS and its retain flag. Malformed
// messages of every kind are refused and change nothing.
TEST_F(IpcManagerTest, PublishChecksAndMalformedMessagesAreRefused) {
    allow("tool", "1");
    ASSERT_TRUE(manager_->Start(mqtt_));
    const auto s = connect(30, "tool");
    const std::pair<const char*, const char*> refused[] = {
        {R"({"type":"publish","message":"aGk="})", "Invalid topic property."},
        {R"({"type":"publish","topic":"t","message":7})", "Invalid message property."},
        {R"({"type":"publish","topic":"t","message":"aGk=","qos":1.5})", "Invalid qos property."},
        {R"({"type":"publish","topic":"t","message":"aGk=","retain":true})",
         "Invalid retain property."},
        {R"({"type":"publish","topic":"t","message":"aGk=","qos":3})",
         "Invalid qos property (out of range): 3"},
        {R"({"type":"publish","topic":"t","message":"aGk=","qos":-1})",
         "Invalid qos property (out of range): -1"},
        {R"({"type":"publish","topic":"","message":"aGk="})", "Topic cannot be empty"},
        {R"({"type":"publish","topic":"t","message":"***"})", "not base64"},
        {R"(not json)", "Failed to parse incoming json message"},
        {R"([1,2])", "Incoming Json::Value is not valid."},
        {R"({"topics":"a"})", "Invalid type property."},
        {R"({"type":"unsubscribe"})", "Unknown message type unsubscribe"},
        {R"({"type":"subscribe","topics":""})", "Empty topics field not allowed"},
        {R"({"type":"subscribe","topics":5})", "Invalid topics property."},
        {R"({"type":"subscribe","topics":",,"})", "No valid topics to subscribe"},
        {R"({"type":"subscribe","topics":"a/#,+/b"})",
         "Wildcard topics are not supported, ignoring +/b"},
    };
    for (const auto& [text, line] : refused) {
        send(s, text);
        EXPECT_TRUE(logged(line)) << text;
    }
    // A NUL inside would hide what follows it from the parser.
    send(s, std::string(R"({"type":"subscribe","topics":"n/1"})") + '\0' + "trailing");
    EXPECT_TRUE(mqtt_.published.empty());
    EXPECT_TRUE(mqtt_.subscribed.empty());
    send(s, R"({"type":"publish","topic":"up/1","message":"aGk=","qos":1,"retain":1})");
    send(s, R"({"type":"publish","topic":"up/2","message":""})");
    EXPECT_EQ(mqtt_.published, (std::vector<std::string>{"up/1|hi|1|r", "up/2||0|-"}));
}

}  // namespace
}  // namespace ndpx
