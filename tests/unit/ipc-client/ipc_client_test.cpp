// The IPC client against a stand-in bridge on a real SOCK_SEQPACKET socket:
// the exact wire format sent, messages and the bootstrap received, clear
// errors for malformed messages, closes, local refusals and the size limit,
// and a stop that ends a blocking receive.

#include "FakeBridge.h"

#include <sys/eventfd.h>

#include <future>

namespace ndpx::ipcclient::test {
namespace {

using namespace std::chrono_literals;

class IpcClientTest : public ::testing::Test {
protected:
    IpcClientTest() {
        EXPECT_TRUE(client_.connectUnderRoot(bridge_.root()).ok());
        bridge_.accept();
    }
    std::string nextTopic(std::chrono::milliseconds timeout = 2s) {
        IpcError error;
        const auto message = client_.receive(timeout, error);
        return message ? message->topic : "error: " + error.message;
    }
    IpcError receiveError(std::chrono::milliseconds timeout = 2s) {
        IpcError error;
        EXPECT_FALSE(client_.receive(timeout, error));
        return error;
    }

    FakeBridge bridge_;
    IpcClient client_;
};

TEST_F(IpcClientTest, SendsExactlyTheWireFormat) {
    ASSERT_TRUE(client_.subscribe({"a/b", "c/+"}).ok());
    EXPECT_EQ(bridge_.receive(), R"({"type":"subscribe","topics":"a/b,c/+"})");
    ASSERT_TRUE(client_.publish("t/1", "hi", 1, true).ok());
    EXPECT_EQ(bridge_.receive(),
              R"({"type":"publish","topic":"t/1","message":"aGk=","qos":1,"retain":1})");
    ASSERT_TRUE(client_.publish("t\"2", "", 2, false).ok());
    EXPECT_EQ(bridge_.receive(),
              R"({"type":"publish","topic":"t\"2","message":"","qos":2,"retain":0})");

    std::vector<std::uint8_t> bytes(256);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(i);
    }
    ASSERT_TRUE(client_.publish("bin", bytes).ok());
    const std::string sent = bridge_.receive();
    const auto begin = sent.find(R"("message":")") + 11;
    EXPECT_EQ(CORE::base64Decode(sent.substr(begin, sent.find('"', begin) - begin)), bytes);
}

TEST_F(IpcClientTest, DecodesMessagesAndRecognisesTheBootstrap) {
    bridge_.sendIdentity("vm7");
    bridge_.sendMessage("a/b", std::string("x\0\n\xff", 4));
    IpcError error;
    auto first = client_.receive(2s, error);
    ASSERT_TRUE(first) << error.message;
    EXPECT_TRUE(first->isIdentity);
    EXPECT_EQ(client_.identity(), (Identity{"e1", "t3", "vm7", "e1t3_vm7"}));
    auto second = client_.receive(2s, error);
    ASSERT_TRUE(second) << error.message;
    EXPECT_EQ(second->topic, "a/b");
    EXPECT_EQ(second->payload, (std::vector<std::uint8_t>{'x', 0, '\n', 0xff}));
    EXPECT_FALSE(second->isIdentity);
}

TEST_F(IpcClientTest, WaitForIdentityKeepsEarlierMessagesForReceive) {
    bridge_.sendMessage("early", "1");
    bridge_.sendIdentity("vm8");
    IpcError error;
    EXPECT_EQ(client_.waitForIdentity(2s, error).value_or(Identity{}).vmId, "vm8");
    EXPECT_EQ(nextTopic(0ms), "early");
    EXPECT_EQ(receiveError(50ms).code, IpcErrc::TimedOut);  // nothing more
}

TEST_F(IpcClientTest, MalformedMessagesAreClearErrorsAndSkipped) {
    const std::pair<std::string, std::string> cases[] = {
        {"not json", "not a JSON object"},
        {R"({"type":"message","message":""})", "without a \"topic\""},
        {R"({"type":"message","topic":"a","message":"a*b="})", "is not base64"},
        {R"({"type":"message","topic":"a"} trailing)", "not a JSON object"},
        {R"({"type":"other","topic":"a","message":""})", "\"type\" is not \"message\""},
        {R"({"type":"message","topic":"core","message":"e30="})", "not {\"type\":\"setidentity\""},
        {std::string(), "not a JSON object"},
        {R"({"type":"message","topic":"a","message":""})" + std::string(1, '\0') + "x",
         "a NUL byte inside"},
    };
    for (const auto& [packet, reason] : cases) {
        bridge_.sendRaw(packet);
        const IpcError error = receiveError();
        EXPECT_EQ(error.code, IpcErrc::Malformed) << packet;
        EXPECT_NE(error.message.find(reason), std::string::npos) << error.message;
    }
    bridge_.sendMessage("core", R"({"type":"setidentity","data":{"edgeid":"e","vmid":"v"}})");
    EXPECT_NE(receiveError().message.find("\"shorttemplateid\""), std::string::npos);
    bridge_.sendMessage("ok", "still here");
    EXPECT_EQ(nextTopic(), "ok");
}

TEST_F(IpcClientTest, ACloseBeforeTheBootstrapIsARefusalAndLaterAClose) {
    bridge_.closePeer();
    const IpcError refused = receiveError();
    EXPECT_EQ(refused.code, IpcErrc::Refused);
    EXPECT_NE(refused.message.find("include list"), std::string::npos) << refused.message;
    EXPECT_EQ(client_.publish("t", "x").code, IpcErrc::Refused);

    ASSERT_TRUE(client_.connectUnderRoot(bridge_.root()).ok());
    bridge_.accept();
    bridge_.sendIdentity("vm1");
    bridge_.closePeer();
    IpcError error;
    EXPECT_TRUE(client_.waitForIdentity(2s, error)) << error.message;
    EXPECT_EQ(receiveError().code, IpcErrc::Closed);
    EXPECT_EQ(client_.publish("t", "x").code, IpcErrc::Closed);
}

TEST_F(IpcClientTest, BadArgumentsAndOversizedMessagesAreRefusedLocally) {
    EXPECT_EQ(client_.publish("t", "x", 3).code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.publish("t", "x", -1).code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.publish("", "x").message, "the topic is empty");
    EXPECT_EQ(client_.publish("a/#", "x").code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.publish("\xc0\xaf", "x").code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.subscribe({}).code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.subscribe({"a", ""}).code, IpcErrc::InvalidArgument);
    EXPECT_EQ(client_.subscribe({"a,b"}).code, IpcErrc::InvalidArgument);
    EXPECT_EQ(bridge_.receive(100), "");

    const std::size_t overhead =
        std::string(R"({"type":"publish","topic":"t","message":"","qos":0,"retain":0})").size();
    const std::string fits((kMaxMessageBytes - overhead) / 4 * 3, 'p');
    ASSERT_TRUE(client_.publish("t", fits).ok());
    EXPECT_LE(bridge_.receive().size(), kMaxMessageBytes);
    EXPECT_EQ(client_.publish("t", fits + "ppp").code, IpcErrc::TooLarge);
    EXPECT_EQ(client_.publish("t", std::string(kMaxMessageBytes + 1, 'p')).code, IpcErrc::TooLarge);
}

TEST_F(IpcClientTest, StopEndsABlockingReceiveAndEveryLaterWait) {
    auto blocked = std::async(std::launch::async, [this] { return receiveError(kWaitForever); });
    EXPECT_EQ(blocked.wait_for(100ms), std::future_status::timeout);
    client_.stop();
    if (blocked.wait_for(2s) != std::future_status::ready) {
        bridge_.closePeer();  // so that a failure does not hang
    }
    EXPECT_EQ(blocked.get().code, IpcErrc::Stopped);
    IpcError error;
    EXPECT_FALSE(client_.waitForIdentity(2s, error));
    EXPECT_EQ(error.code, IpcErrc::Stopped);
}

TEST(IpcClientStop, AReadableStopHandleEndsTheWait) {
    FakeBridge bridge;
    IpcClient client;
    ASSERT_TRUE(client.connectUnderRoot(bridge.root()).ok());
    const platform::UniqueFd event(::eventfd(1, EFD_CLOEXEC));
    client.setStopHandle(event.get());
    IpcError error;
    EXPECT_FALSE(client.receive(kWaitForever, error));
    EXPECT_EQ(error.code, IpcErrc::Stopped);
}

TEST(IpcClientConnect, NoListenerIsReportedWithThePath) {
    ndpx::test::TempDir root;
    IpcClient client;
    const IpcError error = client.connectUnderRoot(root.path());
    EXPECT_EQ(error.code, IpcErrc::NoListener);
    EXPECT_NE(error.message.find(bridgeSocketPath(root.path()).string()), std::string::npos);
    EXPECT_EQ(client.publish("t", "x").code, IpcErrc::NotConnected);
}

}  // namespace
}  // namespace ndpx::ipcclient::test
