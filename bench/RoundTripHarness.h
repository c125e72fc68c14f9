#pragma once
// Command round trip over a real broker: a control-plane client publishes a
// command at QoS 1 on a desktop's commands topic and waits for the answer
// with the same "ID" on its response topic. Every responder is a process of
// its own (the agent, the raw floors), measured the same way; the context
// switches of its threads are counted around each measurement.

#include <devcloud/MqttClient.h>

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace ndpx::bench {

// A process answering commands for one desktop.
struct Target {
    std::string name;       // for the table: "floor", "floor+file", "agent"
    std::string desktopId;  // the identifier in its topics
    pid_t pid = -1;
};

struct RunLimits {
    std::size_t roundTrips = 2000;
    std::chrono::milliseconds maxTime = std::chrono::seconds(10);
    std::size_t warmUp = 50;
    std::chrono::milliseconds answerTimeout = std::chrono::seconds(5);
};

struct Measurement {
    std::size_t completed = 0;
    std::size_t lost = 0;  // no answer within the answer time-out
    double seconds = 0;
    double p50Ms = 0;
    double p99Ms = 0;
    double perSecond = 0;
    double switchesPerCommand = 0;  // the responder's, over all its threads
};

// The control plane's side: one client, subscribed to the response topic of
// every target; sends commands and matches answers by "ID".
class Requester {
public:
    Requester(devcloud::ClientOptions options, const std::vector<Target>& targets);
    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;

    // Keeps `inFlight` "Echo" commands to `target` outstanding until
    // `limits` are reached, after a warm-up.
    Measurement measure(const Target& target, std::size_t inFlight, const RunLimits& limits);
    // Sends single commands until one is answered (the responder is
    // subscribed), at most for `limit`.
    bool waitAnswering(const Target& target, std::chrono::milliseconds limit);

private:
    using Clock = std::chrono::steady_clock;

    bool send(const std::string& topic);
    std::vector<double> takeAnswers(std::chrono::milliseconds limit);
    std::size_t dropOutstanding();
    std::vector<double> drive(const std::string& topic, std::size_t inFlight, std::size_t count,
                              Clock::time_point deadline, std::chrono::milliseconds answerTimeout,
                              std::size_t& lost);
    void onAnswer(const devcloud::Message& m);

    const std::string idPrefix_;  // IDs never repeat, not even across runs against one agent
    std::size_t seq_ = 0;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::unordered_map<std::string, Clock::time_point> sent_;
    std::vector<double> latenciesMs_;
    devcloud::MqttClient client_;  // last: its callbacks use the members above
};

}  // namespace ndpx::bench
