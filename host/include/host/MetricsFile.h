#pragma once
// The host's metrics sink: keeps the latest record of every key and writes
// them all to a JSON file that operators and tests can read. Each key maps
// to {"source", "category", "dataType", "value"}; a value that is JSON as a
// whole (the module's metric is an object) is written as that JSON, any
// other text as a string. With a textfile, the module's metric is also
// written there in the Prometheus text format, for node_exporter.

#include <mfw/coretimer.h>
#include <mfw/metrics.h>

#include <json/value.h>

#include <filesystem>
#include <mutex>
#include <string>

namespace ndpx::host {

// Creates `dir` and its parents readable and passable by everyone, whatever
// the umask: the run folder holds what operators' tools read (the metrics
// file) or reach (the agentctl socket, itself private).
bool createRunFolder(const std::filesystem::path& dir, std::string& error);

class MetricsFile : public CORE::MetricsSink {
public:
    explicit MetricsFile(std::filesystem::path file, std::filesystem::path textfile = {});
    bool sendData(const CORE::MetricRecord& record) override;
    // The latest record of `key` as written to the file; null when none came.
    Json::Value latest(const std::string& key) const;
    // The module's latest metric in the Prometheus text format.
    std::string prometheus() const;

private:
    // The textfile holds only the module's record: rewritten when it changed.
    void writeLockHeld(bool moduleChanged);
    std::string prometheusLockHeld() const;

    const std::filesystem::path file_;
    const std::filesystem::path textfile_;
    mutable std::mutex mutex_;
    Json::Value latest_{Json::objectValue};  // the file's content, by key
};

// Runs every registered collector once per period.
class MetricsCollector : public CORE::coretimer {
public:
    MetricsCollector() : CORE::coretimer(ndpx::platform::TimeSource::real(), {}, "Metrics") {}
    ~MetricsCollector() override { stop(); }

protected:
    bool TimerCallback() override;
};

}  // namespace ndpx::host
