#include "RoundTripHarness.h"

#include "ContextSwitches.h"

#include <devcloud/Topics.h>

#include <json/json.h>

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

namespace ndpx::bench {
namespace {

const Json::StreamWriterBuilder& compactWriter() {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        return b;
    }();
    return builder;
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(p * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}

}  // namespace

Requester::Requester(devcloud::ClientOptions options, const std::vector<Target>& targets)
    : idPrefix_(std::to_string(::getpid()) + "-" +
                std::to_string(Clock::now().time_since_epoch().count()) + "-"),
      client_(std::move(options)) {
    client_.setHandler([this](const devcloud::Message& m) { onAnswer(m); });
    if (!client_.connect()) {
        throw std::runtime_error("requester: " + client_.lastError());
    }
    for (const Target& t : targets) {
        if (!client_.subscribe(devcloud::responseTopic(t.desktopId), 1)) {
            throw std::runtime_error("requester: " + client_.lastError());
        }
    }
}

bool Requester::send(const std::string& topic) {
    Json::Value request(Json::objectValue);
    const std::string id = idPrefix_ + std::to_string(seq_++);
    request["ID"] = id;
    request["COMMAND"] = "Echo";
    request["DATA"] = "round trip payload";
    const std::string payload = Json::writeString(compactWriter(), request);
    {
        std::lock_guard lock(mutex_);
        sent_[id] = Clock::now();
    }
    return client_.publishAsync(topic, payload, 1);
}

std::vector<double> Requester::takeAnswers(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, limit, [&] { return !latenciesMs_.empty(); });
    return std::exchange(latenciesMs_, {});
}

std::size_t Requester::dropOutstanding() {
    std::lock_guard lock(mutex_);
    const std::size_t n = sent_.size();
    sent_.clear();
    latenciesMs_.clear();
    return n;
}

// On the client library's receive thread: parse, match, hand over, return.
void Requester::onAnswer(const devcloud::Message& m) {
    const auto now = Clock::now();
    Json::Value answer;
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(m.payload.data(), m.payload.data() + m.payload.size(), &answer, nullptr) ||
        !answer.isObject()) {
        return;
    }
    const std::string id = answer.get("ID", "").asString();
    std::lock_guard lock(mutex_);
    const auto it = sent_.find(id);
    if (it == sent_.end()) {
        return;  // a duplicate, or an answer given up on
    }
    latenciesMs_.push_back(std::chrono::duration<double, std::milli>(now - it->second).count());
    sent_.erase(it);
    cv_.notify_all();
}

// Keeps `inFlight` requests outstanding until `count` were answered or the
// time is up. Returns every latency observed.
std::vector<double> Requester::drive(const std::string& topic, std::size_t inFlight,
                                     std::size_t count, Clock::time_point deadline,
                                     std::chrono::milliseconds answerTimeout, std::size_t& lost) {
    std::vector<double> latencies;
    latencies.reserve(count);
    std::size_t sent = 0;
    std::size_t outstanding = 0;
    while (sent < std::min(inFlight, count)) {
        outstanding += send(topic) ? 1 : 0;
        ++sent;
    }
    while (outstanding > 0) {
        const auto answers = takeAnswers(answerTimeout);
        if (answers.empty()) {
            break;  // answers stopped coming: count the rest as lost
        }
        latencies.insert(latencies.end(), answers.begin(), answers.end());
        outstanding -= std::min(outstanding, answers.size());
        const bool more = Clock::now() < deadline;
        for (std::size_t i = 0; more && i < answers.size() && sent < count; ++i) {
            outstanding += send(topic) ? 1 : 0;
            ++sent;
        }
    }
    lost += dropOutstanding();
    return latencies;
}

bool Requester::waitAnswering(const Target& target, std::chrono::milliseconds limit) {
    const std::string topic = devcloud::commandsTopic(target.desktopId);
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        std::size_t lost = 0;
        if (!drive(topic, 1, 1, deadline, std::chrono::milliseconds(500), lost).empty()) {
            return true;
        }
    }
    return false;
}

Measurement Requester::measure(const Target& target, std::size_t inFlight,
                               const RunLimits& limits) {
    const std::string topic = devcloud::commandsTopic(target.desktopId);
    std::size_t warmUpLost = 0;
    // Warm-up: broker routes, allocations and caches settle.
    drive(topic, inFlight, limits.warmUp, Clock::now() + limits.maxTime, limits.answerTimeout,
          warmUpLost);

    Measurement m;
    const std::uint64_t switchesBefore = contextSwitches(target.pid);
    const auto begin = Clock::now();
    std::vector<double> latencies = drive(topic, inFlight, limits.roundTrips,
                                          begin + limits.maxTime, limits.answerTimeout, m.lost);
    m.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    // A thread that ended during the round takes its count with it.
    const std::uint64_t switchesAfter = contextSwitches(target.pid);
    const std::uint64_t switches =
        switchesAfter > switchesBefore ? switchesAfter - switchesBefore : 0;

    std::sort(latencies.begin(), latencies.end());
    m.completed = latencies.size();
    m.p50Ms = percentile(latencies, 0.50);
    m.p99Ms = percentile(latencies, 0.99);
    m.perSecond = m.seconds > 0 ? static_cast<double>(m.completed) / m.seconds : 0;
    m.switchesPerCommand =
        m.completed > 0 ? static_cast<double>(switches) / static_cast<double>(m.completed) : 0;
    return m;
}

}  // namespace ndpx::bench
