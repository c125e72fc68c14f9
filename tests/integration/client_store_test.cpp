// The client library with the session's message store, against a real broker:
// messages accepted before any connection, QoS 0 among them, are in the store
// when the client goes without sending them, and the next client over the
// same folder sends them.

#include "mqtt/MqttClient.h"
#include "support/MosquittoBroker.h"
#include "support/MqttTestClient.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <set>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

class QuietListener : public MqttClientListener {
public:
    void onConnectionLost(const std::string&) override {}
    void onMessageArrived(std::string, std::string) override {}
    void onDeliveryComplete(int) override {}
    void onConnected(const std::string&, bool) override {}
    void onDisconnectReceived(int) override {}
    void onConnectSuccess() override {}
    void onConnectFailure(const MqttFailure&) override {}
    void onDisconnectSuccess() override {}
    void onDisconnectFailure(const MqttFailure&) override {}
    void onSslError(const std::string&) override {}
};

TEST(ClientStoreTest, MessagesAcceptedBeforeAnyConnectionAreSentByTheNextClient) {
    test::MosquittoBroker broker;
    test::TempDir folder;
    const auto files = broker.writeClientFiles("desktop", folder.path());
    MqttCreateOptions create;
    create.serverUri = "ssl://127.0.0.1:" + std::to_string(broker.port());
    create.clientId = "desktop";
    create.persistenceDir = folder.path().string();
    std::vector<std::string> storeLines;
    create.storeLog = [&](const std::string& line) { storeLines.push_back(line); };
    QuietListener listener;
    int rc = -1;
    {
        auto client = pahoClientFactory()(create, listener, rc);
        ASSERT_TRUE(client) << rc;
        for (const auto& [payload, qos] : {std::pair{"qos0", 0}, {"qos1", 1}, {"qos2", 2}}) {
            int token = 0;
            ASSERT_EQ(client->publish("desktop/out", payload, qos, false, token, {}, {}), 0);
        }
    }  // gone without a connection, as a killed process would be

    test::MqttTestClient controlPlane(broker, "control-plane");
    ASSERT_TRUE(controlPlane.connect()) << controlPlane.lastError();
    ASSERT_TRUE(controlPlane.subscribe("desktop/out", 2));
    auto client = pahoClientFactory()(create, listener, rc);
    ASSERT_TRUE(client) << rc;
    MqttConnectOptions connect;
    connect.trustStoreFile = files.caFile;
    connect.keyStoreFile = files.certFile;
    connect.privateKeyFile = files.keyFile;
    ASSERT_EQ(client->connect(connect), 0);
    std::set<std::string> seen;
    while (seen.size() < 3) {
        const auto payload = controlPlane.waitForPayload("desktop/out", 10s);
        ASSERT_TRUE(payload) << "received " << seen.size() << "\n" << broker.log();
        seen.insert(*payload);
    }
    EXPECT_EQ(seen, (std::set<std::string>{"qos0", "qos1", "qos2"}));
    EXPECT_TRUE(storeLines.empty()) << storeLines.front();
}

}  // namespace
}  // namespace ndpx
