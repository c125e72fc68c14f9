#include "mqtt/MqttState.h"

namespace ndpx {

std::string mqttStateName(std::int32_t state) {
    static const char* const kNames[] = {
        "MQTT_STATE_UNKNOWN",        "MQTT_STATE_INITIALIZING",  "MQTT_STATE_QUIESCED",
        "MQTT_STATE_WAITING_CONFIG", "MQTT_STATE_PAIRING",       "MQTT_STATE_CONNECTING",
        "MQTT_STATE_CONNECTED",      "MQTT_STATE_NOT_CONNECTED", "MQTT_STATE_STOPPING"};
    if (state >= 0 && state <= MQTT_STATE_STOPPING) {
        return kNames[state];
    }
    return "MQTT_STATE_" + std::to_string(state);
}

}  // namespace ndpx
