#include "mqtt/SessionCounters.h"

#include <algorithm>

namespace ndpx {

void LatencyHistogram::observe(std::chrono::nanoseconds took) {
    const double seconds = std::chrono::duration<double>(took).count();
    const auto bucket = static_cast<std::size_t>(
        std::lower_bound(kBounds.begin(), kBounds.end(), seconds) - kBounds.begin());
    std::lock_guard lock(mutex_);
    if (bucket < inBucket_.size()) {
        ++inBucket_[bucket];
    }
    ++count_;
    sumSeconds_ += seconds;
}

Json::Value LatencyHistogram::toJson() const {
    Json::Value out(Json::objectValue);
    Json::Value& bounds = out["bounds"] = Json::Value(Json::arrayValue);
    Json::Value& counts = out["counts"] = Json::Value(Json::arrayValue);
    std::lock_guard lock(mutex_);
    std::uint64_t atOrUnder = 0;
    for (std::size_t i = 0; i < kBounds.size(); ++i) {
        atOrUnder += inBucket_[i];
        bounds.append(kBounds[i]);
        counts.append(Json::UInt64(atOrUnder));
    }
    out["count"] = Json::UInt64(count_);
    out["sum"] = sumSeconds_;
    return out;
}

ReasonCounts::ReasonCounts(std::initializer_list<const char*> known) {
    for (const char* reason : known) {
        counts_[reason] = 0;
    }
}

void ReasonCounts::add(const std::string& reason) {
    std::lock_guard lock(mutex_);
    ++counts_[reason];
}

Json::Value ReasonCounts::toJson() const {
    Json::Value out(Json::objectValue);
    std::lock_guard lock(mutex_);
    for (const auto& [reason, count] : counts_) {
        out[reason] = Json::UInt64(count);
    }
    return out;
}

Json::Value SessionCounters::commands() const {
    Json::Value out(Json::objectValue);
    out["received"] = Json::UInt64(commandsReceived.load());
    out["answered"] = Json::UInt64(commandsAnswered.load());
    out["duplicates"] = Json::UInt64(duplicateCommands.load());
    out["answerLatency"] = answerLatency.toJson();
    return out;
}

Json::Value SessionCounters::pairing() const {
    Json::Value out(Json::objectValue);
    out["attempts"] = Json::UInt64(pairingAttempts.load());
    out["failures"] = pairingFailures.toJson();
    return out;
}

}  // namespace ndpx
