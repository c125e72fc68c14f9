#pragma once
// An MQTT 5 test client: the development control plane's client with the
// certificate of a test broker's CA. Every wait is bounded.

#include "support/MosquittoBroker.h"

#include <devcloud/MqttClient.h>

#include <chrono>
#include <optional>
#include <string>

namespace ndpx::test {

using devcloud::ClientOptions;
using devcloud::Message;

class MqttTestClient : public devcloud::MqttClient {
public:
    // Client id and certificate common name `cn`, certificate from the
    // broker's CA.
    MqttTestClient(MosquittoBroker& broker, const std::string& cn);
    explicit MqttTestClient(ClientOptions options);

    // The payload of the next message on `filter`, or nullopt after `limit`.
    std::optional<std::string> waitForPayload(
        const std::string& filter, std::chrono::milliseconds limit = std::chrono::seconds(10));
};

}  // namespace ndpx::test
