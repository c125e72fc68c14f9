#pragma once
// The agent's metrics interface: plug-ins register a collector; the host
// collects periodically and keeps the latest value of every key.

#include <functional>
#include <memory>
#include <string>

namespace CORE {

struct MetricRecord {
    std::string key;
    std::string source;
    std::string category;
    int dataType = 0;
    std::string value;
};

class MetricsSink {
public:
    virtual ~MetricsSink() = default;
    virtual bool sendData(const MetricRecord& record) = 0;
};

// The host installs its sink; without one sendMetric() fails.
void setMetricsSink(std::shared_ptr<MetricsSink> sink);
bool sendMetric(const MetricRecord& record);

// A collector runs when the host collects. Returns an id for unregistering.
int registerMetricsCollector(std::function<void()> collect);
// Waits for a running collection of that collector to end. False if unknown.
bool unregisterMetricsCollector(int id);
// Runs every collector once (on the caller's thread).
void collectMetrics();

}  // namespace CORE
