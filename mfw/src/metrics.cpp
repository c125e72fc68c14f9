#include <mfw/metrics.h>

#include <condition_variable>
#include <map>
#include <mutex>

namespace CORE {
namespace {

struct Registry {
    std::mutex mutex;
    std::condition_variable idle;
    std::shared_ptr<MetricsSink> sink;
    std::map<int, std::function<void()>> collectors;
    std::map<int, int> running;  // collector id -> calls in progress
    int nextId = 1;
};

Registry& reg() {
    static Registry* r = new Registry;  // used by module destructors at exit
    return *r;
}

}  // namespace

void setMetricsSink(std::shared_ptr<MetricsSink> sink) {
    std::lock_guard lock(reg().mutex);
    reg().sink = std::move(sink);
}

bool sendMetric(const MetricRecord& record) {
    std::shared_ptr<MetricsSink> sink;
    {
        std::lock_guard lock(reg().mutex);
        sink = reg().sink;
    }
    return sink && sink->sendData(record);
}

int registerMetricsCollector(std::function<void()> collect) {
    std::lock_guard lock(reg().mutex);
    const int id = reg().nextId++;
    reg().collectors.emplace(id, std::move(collect));
    return id;
}

bool unregisterMetricsCollector(int id) {
    std::unique_lock lock(reg().mutex);
    if (reg().collectors.erase(id) == 0) {
        return false;
    }
    // The collector's code may live in a module about to be unloaded.
    reg().idle.wait(lock, [id] { return reg().running[id] == 0; });
    reg().running.erase(id);
    return true;
}

void collectMetrics() {
    std::vector<std::pair<int, std::function<void()>>> todo;
    {
        std::lock_guard lock(reg().mutex);
        for (const auto& [id, fn] : reg().collectors) {
            todo.emplace_back(id, fn);
            ++reg().running[id];
        }
    }
    for (auto& [id, fn] : todo) {
        bool stillRegistered = false;
        {
            std::lock_guard lock(reg().mutex);
            stillRegistered = reg().collectors.count(id) != 0;
        }
        if (stillRegistered) {
            fn();
        }
        std::lock_guard lock(reg().mutex);
        --reg().running[id];
        reg().idle.notify_all();
    }
}

}  // namespace CORE
