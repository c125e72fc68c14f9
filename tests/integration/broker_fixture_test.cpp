// The test broker admits clients by certificate only and survives a kill
// with its queued messages; the test client sees what a real MQTT 5 client
// sees.

#include "support/MosquittoBroker.h"
#include "support/MqttTestClient.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

TEST(BrokerFixture, ClientWithCertificateFromTheCaReceivesItsOwnPublication) {
    MosquittoBroker broker;
    MqttTestClient client(broker, "alice");
    ASSERT_TRUE(client.connect()) << client.lastError() << "\n" << broker.log();
    ASSERT_TRUE(client.subscribe("test/+/echo", 2));

    for (int qos = 0; qos <= 2; ++qos) {
        const std::string payload = "hello at QoS " + std::to_string(qos);
        ASSERT_TRUE(client.publish("test/a/echo", payload, qos)) << client.lastError();
        const auto got = client.waitForMessage("test/a/echo", 10s);
        ASSERT_TRUE(got.has_value()) << "QoS " << qos;
        EXPECT_EQ(got->payload, payload);
        EXPECT_EQ(got->qos, qos);
    }
    // The certificate's common name is the user name the broker logs.
    EXPECT_NE(broker.log().find("u'alice'"), std::string::npos) << broker.log();
}

TEST(BrokerFixture, RetainedMessageReachesALaterSubscriber) {
    MosquittoBroker broker;
    MqttTestClient publisher(broker, "publisher");
    ASSERT_TRUE(publisher.connect()) << publisher.lastError();
    ASSERT_TRUE(publisher.publish("test/retained", "kept", 1, true));

    MqttTestClient late(broker, "late");
    ASSERT_TRUE(late.connect()) << late.lastError();
    ASSERT_TRUE(late.subscribe("test/#", 1));
    const auto got = late.waitForMessage("test/retained", 10s);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->payload, "kept");
    EXPECT_TRUE(got->retained);
}

TEST(BrokerFixture, CertificateFromAnotherCaIsRefused) {
    MosquittoBroker broker;
    auto other = devca::CertificateAuthority::createRoot("someone else's CA");
    const auto issued = other.issueClient("mallory");
    const auto dir = broker.dir() / "clients";
    ASSERT_TRUE(devca::writePrivateFile((dir / "mallory.pem").string(), issued.certPem));
    ASSERT_TRUE(devca::writePrivateFile((dir / "mallory.key").string(), issued.keyPem));

    ClientOptions options = broker.clientOptions("placeholder");
    options.clientId = "mallory";
    options.tls->certFile = (dir / "mallory.pem").string();
    options.tls->keyFile = (dir / "mallory.key").string();
    MqttTestClient mallory(options);
    EXPECT_FALSE(mallory.connect(10s));
    EXPECT_FALSE(mallory.isConnected());
}

TEST(BrokerFixture, ClientWithoutCertificateIsRefused) {
    MosquittoBroker broker;
    ClientOptions options = broker.clientOptions("placeholder");
    options.clientId = "anonymous";
    options.tls->certFile.clear();
    options.tls->keyFile.clear();
    MqttTestClient anonymous(options);
    EXPECT_FALSE(anonymous.connect(10s));
}

TEST(BrokerFixture, KilledBrokerRestartsWithItsQueuedMessages) {
    MosquittoBroker broker;

    // A persistent session that goes away with one subscription.
    ClientOptions subscriberOptions = broker.clientOptions("subscriber");
    subscriberOptions.cleanStart = false;
    subscriberOptions.sessionExpirySeconds = 600;
    {
        MqttTestClient subscriber(subscriberOptions);
        ASSERT_TRUE(subscriber.connect()) << subscriber.lastError();
        ASSERT_TRUE(subscriber.subscribe("test/queued", 1));
        ASSERT_TRUE(subscriber.disconnect());
    }

    ClientOptions reconnectingOptions = broker.clientOptions("reconnecting");
    reconnectingOptions.automaticReconnect = true;
    MqttTestClient reconnecting(reconnectingOptions);
    ASSERT_TRUE(reconnecting.connect()) << reconnecting.lastError();
    ASSERT_TRUE(reconnecting.publish("test/queued", "while you were away", 1));
    ASSERT_TRUE(broker.waitForStore("while you were away")) << broker.log();

    broker.kill();
    ASSERT_TRUE(reconnecting.waitDisconnected(10s));
    broker.restart();

    ASSERT_TRUE(reconnecting.waitConnected(20s)) << reconnecting.lastError();
    // A clean session comes back without subscriptions.
    ASSERT_TRUE(reconnecting.subscribe("test/again", 1));
    ASSERT_TRUE(reconnecting.publish("test/again", "back", 1));
    EXPECT_EQ(reconnecting.waitForPayload("test/again"), "back");

    MqttTestClient subscriber(subscriberOptions);
    ASSERT_TRUE(subscriber.connect()) << subscriber.lastError();
    EXPECT_TRUE(subscriber.sessionPresent());
    EXPECT_EQ(subscriber.waitForPayload("test/queued"), "while you were away") << broker.log();
}

TEST(BrokerFixture, StoppedBrokerKeepsRetainedMessagesAcrossRestart) {
    MosquittoBroker broker;
    {
        MqttTestClient publisher(broker, "publisher");
        ASSERT_TRUE(publisher.connect()) << publisher.lastError();
        ASSERT_TRUE(publisher.publish("test/config", "v1", 1, true));
    }
    const int port = broker.port();
    broker.stop();
    EXPECT_FALSE(broker.running());
    broker.restart();
    EXPECT_EQ(broker.port(), port);

    MqttTestClient reader(broker, "reader");
    ASSERT_TRUE(reader.connect()) << reader.lastError();
    ASSERT_TRUE(reader.subscribe("test/config", 1));
    EXPECT_EQ(reader.waitForPayload("test/config"), "v1");
}

TEST(BrokerFixture, PlainTcpModeAdmitsClientsWithoutCertificates) {
    MosquittoBroker broker(BrokerOptions{.tls = false, .noDelay = false, .saveEveryChange = false});
    MqttTestClient client(broker, "plain");
    ASSERT_FALSE(client.options().tls.has_value());
    ASSERT_TRUE(client.connect()) << client.lastError() << "\n" << broker.log();
    ASSERT_TRUE(client.subscribe("plain/#", 1));
    ASSERT_TRUE(client.publish("plain/x", "y", 1));
    EXPECT_EQ(client.waitForPayload("plain/x"), "y");
}

}  // namespace
}  // namespace ndpx::test
