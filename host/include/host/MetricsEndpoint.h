#pragma once
// The metrics for a Prometheus scraper on this machine: "GET /metrics" on a
// loopback TCP port, answered from the host's metrics sink by one thread the
// host owns. Off unless a port is given. Requests are served one at a time,
// each bounded in size and time, so a stuck scraper holds nobody for long.

#include <platform/LocalSocket.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace ndpx::host {

class MetricsFile;

// The whole HTTP answer to `request` (its head, up to the blank line):
// the exposition for GET or HEAD of /metrics, 404 for any other path, 405
// for any other method, 400 for what is not a request line.
std::string metricsHttpAnswer(const std::string& request, const MetricsFile& metrics);

class MetricsEndpoint {
public:
    explicit MetricsEndpoint(std::shared_ptr<const MetricsFile> metrics);
    ~MetricsEndpoint();
    MetricsEndpoint(const MetricsEndpoint&) = delete;
    MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

    // Listens on 127.0.0.1:`port` (0: a free port) and starts the thread;
    // false and `error` when the port cannot be had. Once only.
    bool start(std::uint16_t port, std::string& error);
    std::uint16_t port() const { return listener_.port(); }
    // Ends a request under way and the thread, and joins it.
    void stop();

private:
    void run();
    void serve(platform::LocalStream& client);

    const std::shared_ptr<const MetricsFile> metrics_;
    platform::LoopbackListener listener_;
    platform::StopSignal stop_;
    std::thread thread_;
};

}  // namespace ndpx::host
