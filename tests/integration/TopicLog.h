#pragma once
// What the control plane receives on one topic, with arrival times, for a
// test to wait on and inspect.

#include "support/MqttTestClient.h"
#include "support/WaitUntil.h"

#include <json/reader.h>
#include <json/value.h>

#include <chrono>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace ndpx::test {

inline Json::Value parseJson(const std::string& text) {
    Json::Value v;
    std::istringstream in(text);
    Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr);
    return v;
}

class TopicLog {
public:
    using Clock = std::chrono::steady_clock;
    using Entry = std::pair<Clock::time_point, Json::Value>;

    explicit TopicLog(std::string topic) : topic_(std::move(topic)) {}

    void operator()(const devcloud::Message& m) {
        if (m.topic != topic_) {
            return;
        }
        std::lock_guard lock(mutex_);
        seen_.emplace_back(Clock::now(), parseJson(m.payload));
    }
    std::size_t count() const {
        std::lock_guard lock(mutex_);
        return seen_.size();
    }
    std::vector<Entry> all() const {
        std::lock_guard lock(mutex_);
        return seen_;
    }
    bool waitFor(std::size_t n, std::chrono::milliseconds limit = std::chrono::seconds(20)) const {
        return waitUntil([&] { return count() >= n; }, limit);
    }

private:
    const std::string topic_;
    mutable std::mutex mutex_;
    std::vector<Entry> seen_;
};

}  // namespace ndpx::test
