#pragma once
// A raw MQTT stand-in for a desktop agent: it answers every command by
// publishing the request unchanged (it carries the "ID") on the response
// topic at QoS 1, straight from the receive callback. The floor a real
// agent's command round trip is measured against, and a peer for trying
// devcloud by hand.

#include "devcloud/MqttClient.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace ndpx::devcloud {

class EchoResponder {
public:
    EchoResponder(ClientOptions options, std::string desktopId);

    // Connects and subscribes to the commands topic.
    bool start(std::chrono::milliseconds limit = std::chrono::seconds(10));
    std::uint64_t answered() const { return answered_.load(); }
    MqttClient& client() { return client_; }

private:
    const std::string desktopId_;
    const std::string responseTopic_;
    std::atomic<std::uint64_t> answered_{0};
    MqttClient client_;  // last: its callbacks use the members above
};

}  // namespace ndpx::devcloud
