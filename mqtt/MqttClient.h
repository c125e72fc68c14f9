#pragma once
// The seam between the manager and the MQTT client library. The production
// implementation drives the asynchronous C client; unit tests use a fake.

#include <string>

namespace ndpx {

class MqttClient {
public:
    virtual ~MqttClient() = default;

    // Hands one message to the client (which may buffer it while
    // disconnected). Returns 0 and sets `token`, or the library's error code.
    virtual int publish(const std::string& topic, const std::string& payload, int qos,
                        bool retained, int& token) = 0;
    virtual bool isConnected() = 0;
};

}  // namespace ndpx
