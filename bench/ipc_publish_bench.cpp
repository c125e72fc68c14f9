// A desktop process's publish to the control plane: through the agent's IPC
// bridge, and in the same run straight to the broker as an MQTT client of
// its own (the floor). Both publish with QoS 1 on the same broker; a
// control-plane subscriber times each message from the publish call to its
// arrival. Rounds alternate the two, and the ratios are taken per round.
// bench/ipc_bench.py sets up the agent and the broker and runs this.

#include "devcloud/MqttClient.h"
#include "ipcclient/IpcClient.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using ndpx::devcloud::ClientOptions;
using ndpx::devcloud::MqttClient;

struct Result {
    double p50Ms = 0;
    double p90Ms = 0;
    double perSecond = 0;
    std::size_t lost = 0;
};

// What the control plane receives: arrival times by sequence number.
class Arrivals {
public:
    void arrived(const std::string& payload) {
        const auto now = Clock::now();
        std::lock_guard lock(mutex_);
        at_.emplace(std::stoul(payload), now);
        changed_.notify_all();
    }
    // Waits until fewer than `window` of the first `sent` are outstanding.
    bool waitBelow(std::size_t sent, std::size_t window, std::chrono::seconds limit) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return sent - at_.size() < window; });
    }
    std::map<std::size_t, Clock::time_point> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(at_, {});
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::size_t, Clock::time_point> at_;
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

// Sends `count` messages with at most `window` outstanding through `publish`.
Result measure(Arrivals& arrivals, std::size_t count, std::size_t window,
               const std::function<bool(const std::string&)>& publish) {
    arrivals.take();
    std::vector<Clock::time_point> sentAt(count);
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        if (!arrivals.waitBelow(i, window, std::chrono::seconds(10))) {
            break;
        }
        sentAt[i] = Clock::now();
        if (!publish(std::to_string(i))) {
            std::fprintf(stderr, "publish %zu failed\n", i);
            break;
        }
    }
    arrivals.waitBelow(count, 1, std::chrono::seconds(10));
    const auto at = arrivals.take();
    Result r;
    std::vector<double> latencies;
    Clock::time_point last = start;
    for (const auto& [seq, when] : at) {
        if (seq < count) {
            latencies.push_back(
                std::chrono::duration<double, std::milli>(when - sentAt[seq]).count());
            last = std::max(last, when);
        }
    }
    r.lost = count - latencies.size();
    r.p50Ms = percentile(latencies, 0.5);
    r.p90Ms = percentile(latencies, 0.9);
    const double seconds = std::chrono::duration<double>(last - start).count();
    r.perSecond = seconds > 0 ? static_cast<double>(latencies.size()) / seconds : 0;
    return r;
}

ClientOptions tlsClient(int port, const std::string& ca, const std::string& prefix,
                        const std::string& id) {
    ClientOptions o;
    o.port = port;
    o.clientId = id;
    o.tls = ndpx::devcloud::TlsFiles{ca, prefix + ".pem", prefix + ".key"};
    return o;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"ipc_publish_bench: publish through the IPC bridge against a direct client"};
    std::string root;
    int port = 0;
    std::string ca;
    std::string cloudCert;
    std::string directCert;
    std::string topic = "desktop/e1/vm7/ipc/bench";
    std::size_t messages = 300;
    std::size_t rounds = 5;
    std::vector<std::size_t> windows{1, 20};
    app.add_option("--root", root, "The agent's root")->required();
    app.add_option("--port", port, "Broker port")->required();
    app.add_option("--ca", ca, "The broker's CA (PEM)")->required();
    app.add_option("--cloud-cert", cloudCert, "Control plane's certificate prefix")->required();
    app.add_option("--direct-cert", directCert, "The direct client's certificate prefix")
        ->required();
    app.add_option("--topic", topic)->capture_default_str();
    app.add_option("--messages", messages,
                   "Messages per measurement (under the bridge's 500 a second)")
        ->capture_default_str();
    app.add_option("--rounds", rounds, "Alternating rounds")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    Arrivals arrivals;
    MqttClient cloud(tlsClient(port, ca, cloudCert, "bench-cloud"));
    cloud.setHandler(
        [&arrivals](const ndpx::devcloud::Message& m) { arrivals.arrived(m.payload); });
    if (!cloud.connect() || !cloud.subscribe(topic, 1)) {
        std::fprintf(stderr, "control plane: %s\n", cloud.lastError().c_str());
        return 1;
    }
    MqttClient direct(tlsClient(port, ca, directCert, "bench-direct"));
    if (!direct.connect()) {
        std::fprintf(stderr, "direct client: %s\n", direct.lastError().c_str());
        return 1;
    }
    ndpx::ipcclient::IpcClient bridge;
    ndpx::ipcclient::IpcError error = bridge.connectUnderRoot(root);
    if (!error.ok() || !bridge.waitForIdentity(std::chrono::seconds(10), error)) {
        std::fprintf(stderr, "bridge: %s\n", error.message.c_str());
        return 1;
    }
    const auto viaBridge = [&](const std::string& payload) {
        return bridge.publish(topic, payload, 1).ok();
    };
    const auto viaDirect = [&](const std::string& payload) {
        return direct.publishAsync(topic, payload, 1);
    };

    std::printf("%-8s %6s %5s %9s %9s %10s %5s\n", "path", "window", "round", "p50_ms", "p90_ms",
                "msgs/s", "lost");
    for (const std::size_t window : windows) {
        std::vector<double> latencyRatios;
        std::vector<double> throughputRatios;
        for (std::size_t round = 0; round < rounds; ++round) {
            // The bridge takes at most 500 messages a second from one process:
            // a fresh second for each measurement keeps that limit out of it.
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));
            const Result b = measure(arrivals, messages, window, viaBridge);
            const Result d = measure(arrivals, messages, window, viaDirect);
            for (const auto& [name, r] : {std::pair{"bridge", b}, std::pair{"direct", d}}) {
                std::printf("%-8s %6zu %5zu %9.3f %9.3f %10.0f %5zu\n", name, window, round + 1,
                            r.p50Ms, r.p90Ms, r.perSecond, r.lost);
            }
            if (d.p50Ms > 0 && d.perSecond > 0) {
                latencyRatios.push_back(b.p50Ms / d.p50Ms);
                throughputRatios.push_back(b.perSecond / d.perSecond);
            }
        }
        std::printf(
            "window %zu: bridge / direct, median of %zu rounds: p50 %.2fx, throughput %.2fx\n",
            window, latencyRatios.size(), percentile(latencyRatios, 0.5),
            percentile(throughputRatios, 0.5));
    }
    return 0;
}
