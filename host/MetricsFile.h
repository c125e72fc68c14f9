#pragma once
// The host's metrics sink: keeps the latest record of every key and writes
// them all to a JSON file that operators and tests can read.

#include <mfw/coretimer.h>
#include <mfw/metrics.h>

#include <filesystem>
#include <map>
#include <mutex>

namespace ndpx::host {

class MetricsFile : public CORE::MetricsSink {
public:
    explicit MetricsFile(std::filesystem::path file);
    bool sendData(const CORE::MetricRecord& record) override;

private:
    void writeLockHeld();

    const std::filesystem::path file_;
    std::mutex mutex_;
    std::map<std::string, CORE::MetricRecord> latest_;
};

// Runs every registered collector once per period.
class MetricsCollector : public CORE::coretimer {
public:
    ~MetricsCollector() override { stop(); }

protected:
    bool TimerCallback() override;
};

}  // namespace ndpx::host
