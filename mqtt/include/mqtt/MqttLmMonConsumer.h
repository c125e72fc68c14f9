#pragma once
// Reports the session state to the agent's metrics service.

#include <json/value.h>

#include <functional>
#include <string>

namespace ndpx {

class MqttLmMonConsumer {
public:
    // `stateName` reads the current state's name when a metric is collected;
    // `details`, when given, the session's other figures: an object whose
    // members join the state in the metric.
    explicit MqttLmMonConsumer(std::function<std::string()> stateName,
                               std::function<Json::Value()> details = {});
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
    std::function<Json::Value()> details_;
    int collectorId_ = 0;
};

}  // namespace ndpx
