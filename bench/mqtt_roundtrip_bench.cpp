// Command round trip (control plane -> responder -> control plane) over a
// mosquitto broker with TLS and client certificates, with 1 and with 20
// commands in flight, with and without TCP_NODELAY on the broker and on
// every client socket. The raw MQTT echo client is the floor; further
// responders (the real agent) are added to responders() and measured on the
// same broker in the same run, and their ratio to the floor is printed.

#include "AgentResponder.h"
#include "RoundTripHarness.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
#include <map>

namespace {

using ndpx::bench::Measurement;

std::vector<std::pair<std::string, ndpx::bench::ResponderFactory>> responders() {
    return {
        {"floor", &ndpx::bench::makeFloorResponder},
        {"agent", &ndpx::bench::makeAgentResponder},
    };
}

void printRow(const Measurement& m) {
    std::printf("%-8s %-8s %9zu %8zu %5zu %9.3f %9.3f %10.0f %8.2f\n", m.responder.c_str(),
                m.noDelay ? "on" : "off", m.inFlight, m.completed, m.lost, m.p50Ms, m.p99Ms,
                m.perSecond, m.seconds);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"mqtt_roundtrip_bench: command round trip over a real broker"};
    ndpx::bench::RunLimits limits;
    std::size_t roundTrips = limits.roundTrips;
    double maxSeconds = 10;
    std::string nodelay = "both";
    bool plain = false;
    std::vector<std::size_t> depths{1, 20};
    app.add_option("--round-trips", roundTrips, "Round trips per configuration")
        ->capture_default_str();
    app.add_option("--max-seconds", maxSeconds, "Time limit per configuration")
        ->capture_default_str();
    app.add_option("--nodelay", nodelay, "on, off or both")
        ->check(CLI::IsMember({"on", "off", "both"}))
        ->capture_default_str();
    app.add_option("--in-flight", depths, "Commands in flight (repeatable)")->capture_default_str();
    app.add_flag("--plain-tcp", plain, "Broker without TLS (transport comparison only)");
    CLI11_PARSE(app, argc, argv);
    limits.roundTrips = roundTrips;
    limits.maxTime = std::chrono::milliseconds(static_cast<long long>(maxSeconds * 1000));

    std::vector<bool> modes;
    if (nodelay != "off") {
        modes.push_back(true);
    }
    if (nodelay != "on") {
        modes.push_back(false);
    }

    std::printf("%-8s %-8s %9s %8s %5s %9s %9s %10s %8s\n", "who", "nodelay", "in-flight",
                "answers", "lost", "p50 ms", "p99 ms", "per s", "seconds");
    std::map<std::tuple<bool, std::size_t, std::string>, Measurement> results;
    try {
        for (const bool noDelay : modes) {
            // One broker per Nagle setting (set_tcp_nodelay is a start-up
            // option); every responder is measured on it.
            ndpx::test::MosquittoBroker broker(ndpx::test::BrokerOptions{
                .tls = !plain, .noDelay = noDelay, .saveEveryChange = false});
            for (const auto& [name, factory] : responders()) {
                auto responder = factory();
                responder->start(broker, noDelay);
                for (const std::size_t depth : depths) {
                    const Measurement m =
                        ndpx::bench::measure(broker, *responder, noDelay, depth, limits);
                    printRow(m);
                    results[{noDelay, depth, name}] = m;
                }
            }
        }
    } catch (const std::exception& e) {
        std::cerr << "mqtt_roundtrip_bench: " << e.what() << "\n";
        return 1;
    }

    // Every other responder against the floor of the same configuration.
    bool header = false;
    for (const auto& [key, m] : results) {
        const auto& [noDelay, depth, name] = key;
        const auto floor = results.find({noDelay, depth, "floor"});
        if (name == "floor" || floor == results.end() || floor->second.p50Ms <= 0) {
            continue;
        }
        if (!header) {
            std::printf("\n%-8s %-8s %9s %12s %12s %14s\n", "who", "nodelay", "in-flight",
                        "p50 / floor", "p99 / floor", "per s / floor");
            header = true;
        }
        std::printf("%-8s %-8s %9zu %12.2f %12.2f %14.2f\n", name.c_str(), noDelay ? "on" : "off",
                    depth, m.p50Ms / floor->second.p50Ms, m.p99Ms / floor->second.p99Ms,
                    floor->second.perSecond > 0 ? m.perSecond / floor->second.perSecond : 0);
    }
    return 0;
}
