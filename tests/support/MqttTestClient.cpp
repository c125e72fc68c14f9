#include "support/MqttTestClient.h"

#include <utility>

namespace ndpx::test {

MqttTestClient::MqttTestClient(MosquittoBroker& broker, const std::string& cn)
    : MqttClient(broker.clientOptions(cn)) {}

MqttTestClient::MqttTestClient(ClientOptions options) : MqttClient(std::move(options)) {}

std::optional<std::string> MqttTestClient::waitForPayload(const std::string& filter,
                                                          std::chrono::milliseconds limit) {
    auto m = waitForMessage(filter, limit);
    if (!m) {
        return std::nullopt;
    }
    return std::move(m->payload);
}

}  // namespace ndpx::test
