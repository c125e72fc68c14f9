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

TEST(BrokerFixture, OnlyClientsWithACertificateFromTheCaAreAdmitted) {
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

    const auto issued =
        devca::CertificateAuthority::createRoot("someone else's CA").issueClient("mallory");
    ClientOptions mallory = broker.clientOptions("mallory");
    ASSERT_TRUE(devca::writePrivateFile(mallory.tls->certFile, issued.certPem));
    ASSERT_TRUE(devca::writePrivateFile(mallory.tls->keyFile, issued.keyPem));
    ClientOptions anonymous = broker.clientOptions("anonymous");
    anonymous.tls->certFile.clear();
    anonymous.tls->keyFile.clear();
    for (const auto& options : {mallory, anonymous}) {
        MqttTestClient refused(options);
        EXPECT_FALSE(refused.connect(10s)) << options.clientId;
        EXPECT_FALSE(refused.isConnected());
    }
}

// Killed, the broker comes back with what it saved: the messages queued for
// a persistent session and retained ones. Stopped, it saves and comes back on
// the same port.
TEST(BrokerFixture, RestartedBrokerKeepsQueuedAndRetainedMessages) {
    MosquittoBroker broker;
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
    ASSERT_TRUE(reconnecting.publish("test/config", "retained v1", 1, true));
    ASSERT_TRUE(reconnecting.publish("test/queued", "while you were away", 1));
    ASSERT_TRUE(broker.waitForStore("retained v1")) << broker.log();
    ASSERT_TRUE(broker.waitForStore("while you were away")) << broker.log();

    broker.kill();
    ASSERT_TRUE(reconnecting.waitDisconnected(10s));
    broker.restart();
    ASSERT_TRUE(reconnecting.waitConnected(20s)) << reconnecting.lastError();
    MqttTestClient subscriber(subscriberOptions);
    ASSERT_TRUE(subscriber.connect()) << subscriber.lastError();
    EXPECT_TRUE(subscriber.sessionPresent());
    EXPECT_EQ(subscriber.waitForPayload("test/queued"), "while you were away") << broker.log();

    const int port = broker.port();
    broker.stop();
    EXPECT_FALSE(broker.running());
    broker.restart();
    EXPECT_EQ(broker.port(), port);
    MqttTestClient reader(broker, "reader");
    ASSERT_TRUE(reader.connect()) << reader.lastError();
    ASSERT_TRUE(reader.subscribe("test/#", 1));
    const auto got = reader.waitForMessage("test/config", 10s);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->payload, "retained v1");
    EXPECT_TRUE(got->retained);
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
