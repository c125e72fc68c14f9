#pragma once
// The session's connection state, as shown in logs and metrics.

#include <cstdint>
#include <string>

namespace ndpx {

enum MqttState : std::int32_t {
    MQTT_STATE_UNKNOWN = 0,
    MQTT_STATE_INITIALIZING = 1,
    MQTT_STATE_QUIESCED = 2,
    MQTT_STATE_WAITING_CONFIG = 3,
    MQTT_STATE_PAIRING = 4,
    MQTT_STATE_CONNECTING = 5,
    MQTT_STATE_CONNECTED = 6,
    MQTT_STATE_NOT_CONNECTED = 7,
    MQTT_STATE_STOPPING = 8,
};

// "MQTT_STATE_CONNECTED", or "MQTT_STATE_%d" for a value outside the table.
std::string mqttStateName(std::int32_t state);

}  // namespace ndpx
