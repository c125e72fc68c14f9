#include "mqtt/MqttLmMonConsumer.h"

#include "config/MqttManagerUtil.h"

#include <mfw/metrics.h>
#include <mfw/moduleLog.h>

namespace ndpx {
namespace {
constexpr int kDataTypeJson = 4;
}

MqttLmMonConsumer::MqttLmMonConsumer(std::function<std::string()> stateName,
                                     std::function<Json::Value()> details)
    : stateName_(std::move(stateName)), details_(std::move(details)) {}

MqttLmMonConsumer::~MqttLmMonConsumer() {
    unload();
}

void MqttLmMonConsumer::load() {
    if (collectorId_ == 0) {
        collectorId_ = CORE::registerMetricsCollector([this] { DoSetMetricCallback(); });
    }
}

bool MqttLmMonConsumer::unload() {
    if (collectorId_ == 0) {
        return false;
    }
    const bool ok = CORE::unregisterMetricsCollector(collectorId_);
    collectorId_ = 0;
    if (ok) {
        MFW_LOG(CORE::kLogInfo, "Unloaded LmMonApi");
    } else {
        MFW_LOG(CORE::kLogError, "Failed to unload LmMonApi.");
    }
    return ok;
}

bool MqttLmMonConsumer::DoSetMetricCallback() {
    const std::string name = stateName_();
    MFW_LOG(CORE::kLogDebug, "MqttLmMonConsumer::DoSetMetricCallback(): state=%s", name.c_str());
    Json::Value root = details_ ? details_() : Json::Value();
    if (!root.isObject()) {
        root = Json::Value(Json::objectValue);
    }
    root["mqttState"]["state"] = name;
    return SendData("MQTTMetrics", "ndpx_mqtt", "MQTTMetrics", kDataTypeJson,
                    MqttManagerUtil::writeCompact(root));
}

// By value, as its callers hand texts over; deliberately not forwarded.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void MqttLmMonConsumer::ReportError(std::string /*message*/) {}

bool MqttLmMonConsumer::SendData(const std::string& key, const std::string& source,
                                 const std::string& category, int dataType,
                                 const std::string& value) {
    CORE::MetricRecord record{key, source, category, dataType, value};
    if (!CORE::sendMetric(record)) {
        MFW_LOG(CORE::kLogError,
                "LmMonConsumer::SendData: [AgentMonitoring] Failed to send data to LmMonApi "
                "LmMonStatus: %d",
                1);
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "LmMonConsumer::SendData: [AgentMonitoring] Sent data to LmMonService. Key: %s, "
            "Category: %s, Source: %s, dataType: %d, dataValue: %s",
            key.c_str(), category.c_str(), source.c_str(), dataType, value.c_str());
    return true;
}

}  // namespace ndpx
