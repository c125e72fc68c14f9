#include "RoundTripHarness.h"

#include <atomic>

#include <devcloud/EchoResponder.h>
#include <devcloud/MqttClient.h>
#include <devcloud/Topics.h>

#include <json/json.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

namespace ndpx::bench {
namespace {

using Clock = std::chrono::steady_clock;

class FloorResponder : public Responder {
public:
    std::string name() const override { return "floor"; }
    std::string desktopId() const override { return "bench/floor"; }
    void start(test::MosquittoBroker& broker, bool noDelay) override {
        devcloud::ClientOptions options = broker.clientOptions("bench-floor-echo");
        options.noDelay = noDelay;
        echo_ = std::make_unique<devcloud::EchoResponder>(options, desktopId());
        if (!echo_->start()) {
            throw std::runtime_error("floor responder: " + echo_->client().lastError());
        }
    }

private:
    std::unique_ptr<devcloud::EchoResponder> echo_;
};

// The control plane's side: sends commands and matches answers by "ID".
class Requester {
public:
    Requester(test::MosquittoBroker& broker, bool noDelay, const std::string& desktopId)
        : commands_(devcloud::commandsTopic(desktopId)),
          responses_(devcloud::responseTopic(desktopId)),
          client_(options(broker, noDelay)) {
        client_.setHandler([this](const devcloud::Message& m) { onAnswer(m); });
        if (!client_.connect() || !client_.subscribe(responses_, 1)) {
            throw std::runtime_error("requester: " + client_.lastError());
        }
    }

    bool send(const std::string& command, std::size_t seq) {
        Json::Value request(Json::objectValue);
        const std::string id = std::to_string(seq);
        request["ID"] = id;
        request["COMMAND"] = command;
        request["DATA"] = "round trip payload";
        const std::string payload = Json::writeString(writer(), request);
        {
            std::lock_guard lock(mutex_);
            sent_[id] = Clock::now();
        }
        return client_.publishAsync(commands_, payload, 1);
    }

    // Waits for at least one answer; returns the latencies of the answers
    // received since the last call (empty after `limit`).
    std::vector<double> takeAnswers(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        cv_.wait_for(lock, limit, [&] { return !latenciesMs_.empty(); });
        std::vector<double> out;
        out.swap(latenciesMs_);
        return out;
    }

    // Forgets requests that were never answered; returns how many.
    std::size_t dropOutstanding() {
        std::lock_guard lock(mutex_);
        const std::size_t n = sent_.size();
        sent_.clear();
        return n;
    }

private:
    static devcloud::ClientOptions options(test::MosquittoBroker& broker, bool noDelay) {
        devcloud::ClientOptions o = broker.clientOptions("bench-control-plane");
        o.noDelay = noDelay;
        return o;
    }
    static const Json::StreamWriterBuilder& writer() {
        static const Json::StreamWriterBuilder builder = [] {
            Json::StreamWriterBuilder b;
            b["indentation"] = "";
            return b;
        }();
        return builder;
    }

    // On Paho's receive thread: parse, match, hand over, return.
    void onAnswer(const devcloud::Message& m) {
        const auto now = Clock::now();
        Json::Value answer;
        Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        if (!reader->parse(m.payload.data(), m.payload.data() + m.payload.size(), &answer,
                           nullptr) ||
            !answer.isObject()) {
            return;
        }
        const std::string id = answer.get("ID", "").asString();
        std::lock_guard lock(mutex_);
        const auto it = sent_.find(id);
        if (it == sent_.end()) {
            return;  // a duplicate, or an answer from an earlier phase
        }
        latenciesMs_.push_back(std::chrono::duration<double, std::milli>(now - it->second).count());
        sent_.erase(it);
        cv_.notify_all();
    }

    const std::string commands_;
    const std::string responses_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::unordered_map<std::string, Clock::time_point> sent_;
    std::vector<double> latenciesMs_;
    devcloud::MqttClient client_;  // last: its callbacks use the members above
};

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

// Keeps `inFlight` requests outstanding until `count` were answered or the
// time is up. Returns every latency observed.
std::vector<double> drive(Requester& requester, const std::string& command, std::size_t inFlight,
                          std::size_t count, Clock::time_point deadline,
                          std::chrono::milliseconds answerTimeout, std::size_t& seq,
                          std::size_t& lost) {
    std::vector<double> latencies;
    latencies.reserve(count);
    std::size_t sent = 0;
    std::size_t outstanding = 0;
    while (sent < std::min(inFlight, count)) {
        outstanding += requester.send(command, seq++) ? 1 : 0;
        ++sent;
    }
    while (outstanding > 0) {
        const auto answers = requester.takeAnswers(answerTimeout);
        if (answers.empty()) {
            break;  // answers stopped coming: count the rest as lost
        }
        latencies.insert(latencies.end(), answers.begin(), answers.end());
        outstanding -= std::min(outstanding, answers.size());
        const bool more = Clock::now() < deadline;
        for (std::size_t i = 0; more && i < answers.size() && sent < count; ++i) {
            outstanding += requester.send(command, seq++) ? 1 : 0;
            ++sent;
        }
    }
    lost += requester.dropOutstanding();
    return latencies;
}

}  // namespace

Measurement measure(test::MosquittoBroker& broker, Responder& responder, bool noDelay,
                    std::size_t inFlight, const RunLimits& limits) {
    Requester requester(broker, noDelay, responder.desktopId());
    // IDs never repeat across measurements: the agent drops a repeated ID as
    // a redelivered command.
    static std::atomic<std::size_t> nextRun{0};
    std::size_t seq = nextRun.fetch_add(1) * 1'000'000;
    std::size_t warmUpLost = 0;
    // Warm-up: broker routes, allocations and caches settle.
    drive(requester, responder.command(), inFlight, limits.warmUp, Clock::now() + limits.maxTime,
          limits.answerTimeout, seq, warmUpLost);
    std::size_t lost = 0;

    const auto begin = Clock::now();
    std::vector<double> latencies =
        drive(requester, responder.command(), inFlight, limits.roundTrips, begin + limits.maxTime,
              limits.answerTimeout, seq, lost);
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();

    std::sort(latencies.begin(), latencies.end());
    Measurement m;
    m.responder = responder.name();
    m.noDelay = noDelay;
    m.inFlight = inFlight;
    m.completed = latencies.size();
    m.lost = lost;
    m.seconds = seconds;
    m.p50Ms = percentile(latencies, 0.50);
    m.p99Ms = percentile(latencies, 0.99);
    m.perSecond = seconds > 0 ? static_cast<double>(latencies.size()) / seconds : 0;
    return m;
}

std::unique_ptr<Responder> makeFloorResponder() {
    return std::make_unique<FloorResponder>();
}

}  // namespace ndpx::bench
