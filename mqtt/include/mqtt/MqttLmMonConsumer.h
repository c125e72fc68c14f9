#pragma once
// Reports the session state to the agent's metrics service.

#include <json/value.h>

#include <functional>
#include <string>

namespace ndpx {

class MqttLmMonConsumer {
public:
    // `stateName` reads the current state's name when a metric is collected;
    // `certificate`, when given, what is known of the client certificate
    // (a JSON object, or null when nothing is); `publications`, when given,
    // the publication counters; `session`, when given, the reconnection
    // counters.
    explicit MqttLmMonConsumer(std::function<std::string()> stateName,
                               std::function<Json::Value()> certificate = {},
                               std::function<Json::Value()> publications = {},
                               std::function<Json::Value()> session = {});
    ~MqttLmMonConsumer();
    MqttLmMonConsumer(const MqttLmMonConsumer&) = delete;
    MqttLmMonConsumer& operator=(const MqttLmMonConsumer&) = delete;

    // Connects to the metrics interface (idempotent).
    void load();
    // Disconnects; logs "Unloaded LmMonApi". Returns false when not loaded.
    bool unload();
    bool loaded() const { return collectorId_ != 0; }

    // Called when the metrics service collects this plug-in's metric.
    bool DoSetMetricCallback();
    // Error reports from the session; deliberately not forwarded.
    void ReportError(std::string message);

private:
    bool SendData(const std::string& key, const std::string& source, const std::string& category,
                  int dataType, const std::string& value);

    std::function<std::string()> stateName_;
    std::function<Json::Value()> certificate_;
    std::function<Json::Value()> publications_;
    std::function<Json::Value()> session_;
    int collectorId_ = 0;
};

}  // namespace ndpx
