// Command round trip (control plane -> broker -> responder -> broker ->
// control plane) at QoS 1 over mutual TLS, against three responder
// processes on the same broker: the paired agent (agenthost with the
// module; its stand-in desktop manager answers "Echo"), and two raw echo
// clients started here (bench/mqtt_floor), one without persistence (the
// floor) and one with the client library's file persistence. Rounds take
// the three in turn; each round's ratios agent / floor are printed and the
// median of the per-round ratios at the end. bench/roundtrip_bench.py pairs
// the agent and runs this.

#include "ChildProcess.h"
#include "RoundTripHarness.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using ndpx::bench::Measurement;
using ndpx::bench::Target;

double median(std::vector<double> v) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    const std::size_t mid = v.size() / 2;
    return v.size() % 2 != 0 ? v[mid] : (v[mid - 1] + v[mid]) / 2;
}

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

// A private folder for the persisting floor, removed with everything in it.
class TempFolder {
public:
    TempFolder() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/ndpx-roundtrip.XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a temporary folder");
        }
        path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

struct Options {
    int port = 0;
    std::string ca;
    std::string cloudCert;
    std::string floorCert;
    std::string agentDesktop;
    int agentPid = 0;
    int sessionExpiry = 300;
    std::size_t rounds = 7;
    std::vector<std::size_t> depths{1, 20};
};

// Starts a floor process answering for `desktop`.
std::unique_ptr<ndpx::bench::ChildProcess> startFloor(const Options& o, const std::string& desktop,
                                                      const std::string& persistence) {
    std::vector<std::string> argv{ndpx::bench::ownFolder() + "/mqtt_floor",
                                  "--port",
                                  std::to_string(o.port),
                                  "--ca",
                                  o.ca,
                                  "--cert",
                                  o.floorCert,
                                  "--client-id",
                                  "bench-" + desktop.substr(desktop.find('/') + 1),
                                  "--desktop",
                                  desktop,
                                  "--session-expiry",
                                  std::to_string(o.sessionExpiry)};
    if (!persistence.empty()) {
        argv.insert(argv.end(), {"--persistence", persistence});
    }
    return std::make_unique<ndpx::bench::ChildProcess>(argv, std::chrono::seconds(20));
}

void printRow(std::size_t depth, std::size_t round, const std::string& who, const Measurement& m) {
    std::printf("%5zu %5zu %-10s %8.3f %8.3f %8.0f %5zu %8.2f\n", depth, round, who.c_str(),
                m.p50Ms, m.p99Ms, m.perSecond, m.lost, m.switchesPerCommand);
    std::fflush(stdout);
}

// Per-round figures of one responder, for the medians.
struct Series {
    std::vector<double> p50;
    std::vector<double> perSecond;
    std::vector<double> switches;
    std::vector<double> p50Ratio;  // agent / this, per round
    std::vector<double> perSecondRatio;
};

void runDepth(ndpx::bench::Requester& requester, const std::vector<Target>& targets,
              std::size_t depth, const Options& o, const ndpx::bench::RunLimits& limits) {
    std::map<std::string, Series> series;
    for (std::size_t round = 1; round <= o.rounds; ++round) {
        std::map<std::string, Measurement> got;
        for (const Target& t : targets) {
            got[t.name] = requester.measure(t, depth, limits);
            printRow(depth, round, t.name, got[t.name]);
        }
        const Measurement& agent = got["agent"];
        for (const Target& t : targets) {
            Series& s = series[t.name];
            const Measurement& m = got[t.name];
            s.p50.push_back(m.p50Ms);
            s.perSecond.push_back(m.perSecond);
            s.switches.push_back(m.switchesPerCommand);
            s.p50Ratio.push_back(ratio(agent.p50Ms, m.p50Ms));
            s.perSecondRatio.push_back(ratio(agent.perSecond, m.perSecond));
        }
        std::printf(
            "      round %zu: agent/floor p50 %.2f, throughput %.2f; agent/floor+file "
            "p50 %.2f, throughput %.2f\n",
            round, series["floor"].p50Ratio.back(), series["floor"].perSecondRatio.back(),
            series["floor+file"].p50Ratio.back(), series["floor+file"].perSecondRatio.back());
    }
    std::printf("\nin flight %zu, medians of %zu rounds:\n", depth, o.rounds);
    std::printf("%-10s %8s %8s %10s %12s %15s %12s\n", "who", "p50 ms", "per s", "sw/cmd",
                "agent/p50", "agent/through", "agent/sw");
    for (const Target& t : targets) {
        const Series& s = series[t.name];
        std::vector<double> swRatio;
        for (std::size_t i = 0; i < s.switches.size(); ++i) {
            swRatio.push_back(ratio(series["agent"].switches[i], s.switches[i]));
        }
        std::printf("%-10s %8.3f %8.0f %10.2f %12.2f %15.2f %12.2f\n", t.name.c_str(),
                    median(s.p50), median(s.perSecond), median(s.switches), median(s.p50Ratio),
                    median(s.perSecondRatio), median(swRatio));
    }
    std::printf("\n");
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"mqtt_roundtrip_bench: command round trip, the agent process against raw floors"};
    Options o;
    ndpx::bench::RunLimits limits;
    double maxSeconds = 10;
    app.add_option("--port", o.port, "Broker port")->required();
    app.add_option("--ca", o.ca, "The broker's CA (PEM)")->required();
    app.add_option("--cloud-cert", o.cloudCert, "Control plane's certificate prefix")->required();
    app.add_option("--floor-cert", o.floorCert, "The floors' certificate prefix")->required();
    app.add_option("--agent-desktop", o.agentDesktop, "The agent's desktop identifier (e1/vm7)")
        ->required();
    app.add_option("--agent-pid", o.agentPid, "The agent's process")->required();
    app.add_option("--session-expiry", o.sessionExpiry,
                   "The floors' session expiry (the agent's default: 300 s, clean start off)")
        ->capture_default_str();
    app.add_option("--rounds", o.rounds, "Rounds (each measures all three)")->capture_default_str();
    app.add_option("--round-trips", limits.roundTrips, "Round trips per measurement")
        ->capture_default_str();
    app.add_option("--max-seconds", maxSeconds, "Time limit per measurement")
        ->capture_default_str();
    app.add_option("--in-flight", o.depths, "Commands in flight (repeatable)")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    limits.maxTime = std::chrono::milliseconds(static_cast<long long>(maxSeconds * 1000));

    try {
        const TempFolder persistence;
        const auto floor = startFloor(o, "bench/floor", "");
        const auto fileFloor = startFloor(o, "bench/floor-file", persistence.path());
        const std::vector<Target> targets{{"floor", "bench/floor", floor->pid()},
                                          {"floor+file", "bench/floor-file", fileFloor->pid()},
                                          {"agent", o.agentDesktop, o.agentPid}};
        ndpx::devcloud::ClientOptions cloud;
        cloud.port = o.port;
        cloud.clientId = "bench-control-plane";
        cloud.tls = ndpx::devcloud::TlsFiles{o.ca, o.cloudCert + ".pem", o.cloudCert + ".key"};
        ndpx::bench::Requester requester(cloud, targets);
        for (const Target& t : targets) {
            if (!requester.waitAnswering(t, std::chrono::seconds(30))) {
                throw std::runtime_error(t.name + " does not answer");
            }
        }
        std::printf("%5s %5s %-10s %8s %8s %8s %5s %8s\n", "depth", "round", "who", "p50 ms",
                    "p99 ms", "per s", "lost", "sw/cmd");
        for (const std::size_t depth : o.depths) {
            runDepth(requester, targets, depth, o, limits);
        }
    } catch (const std::exception& e) {
        std::cerr << "mqtt_roundtrip_bench: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
