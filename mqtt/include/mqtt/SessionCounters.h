#pragma once
// What the session has done since the module started, for the metrics:
// commands received, answered and dropped as duplicates with the time each
// answer took, and pairing attempts with the reasons they failed. Every
// member may be used from any thread; the metrics collection reads them as
// JSON.

#include <json/value.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>

namespace ndpx {

// Durations counted into fixed buckets, as a Prometheus histogram has them.
class LatencyHistogram {
public:
    // Upper bounds in seconds, ascending; a last bucket without bound is
    // implied. Most answers take milliseconds; a session start or a domain
    // join may take many seconds.
    static constexpr std::array<double, 12> kBounds{0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                                    0.5,   1,    2.5,   5,    10,  30};

    void observe(std::chrono::nanoseconds took);
    // {"bounds": [...], "counts": [answers at or under each bound], "count":
    // every answer, "sum": their seconds}.
    Json::Value toJson() const;

private:
    mutable std::mutex mutex_;
    std::array<std::uint64_t, kBounds.size()> inBucket_{};  // each bucket alone
    std::uint64_t count_ = 0;
    double sumSeconds_ = 0;
};

// How often each reason (or result) was seen.
class ReasonCounts {
public:
    // The reasons `known` count from zero, so a scraper sees them before the
    // first.
    explicit ReasonCounts(std::initializer_list<const char*> known = {});
    void add(const std::string& reason);
    // {reason: count}, an empty object before the first.
    Json::Value toJson() const;

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::uint64_t> counts_;
};

// Why a pairing failed, as the metric's label has it.
namespace pairing_failure {
inline constexpr const char* kKeyGeneration = "key_generation";
inline constexpr const char* kCredentialService = "credential_service";  // no answer, or an error
inline constexpr const char* kCredentialsResponse = "credentials_response";  // unusable answer
inline constexpr const char* kStore = "store";  // the certificates could not be kept
}  // namespace pairing_failure

struct SessionCounters {
    std::atomic<std::uint64_t> commandsReceived{0};
    std::atomic<std::uint64_t> commandsAnswered{0};
    std::atomic<std::uint64_t> duplicateCommands{0};
    LatencyHistogram answerLatency;
    std::atomic<std::uint64_t> pairingAttempts{0};
    ReasonCounts pairingFailures{pairing_failure::kKeyGeneration,
                                 pairing_failure::kCredentialService,
                                 pairing_failure::kCredentialsResponse, pairing_failure::kStore};

    // {"received", "answered", "duplicates", "answerLatency"}
    Json::Value commands() const;
    // {"attempts", "failures": {reason: count}}
    Json::Value pairing() const;
};

}  // namespace ndpx
