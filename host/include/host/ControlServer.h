#pragma once
// The operator's control channel (agentctl): a local socket beside the
// metrics file, served by one thread the host owns. Only root, and the
// host's own user, may use it. A connection carries one request, a line of
// JSON, and gets one answer line; connections are served one at a time, each
// bounded in size and time, so a stuck client holds nobody for long.

#include <mfw/coreevent.h>
#include <platform/LocalSocket.h>

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

namespace ndpx::host {

class MetricsFile;

struct ControlLimits {
    std::size_t maxRequestBytes = 1u << 20;  // a bootstrap document fits
    std::chrono::milliseconds readTimeout{5000};
    std::chrono::milliseconds writeTimeout{5000};
    std::uint32_t sendTimeoutMs = 30000;  // a worker's answer to "send"
};

// "status": what the host sees of the module: its latest "MQTTMetrics", the
// identity and endpoint in the settings store, the client certificate's end.
Json::Value composeStatus(const Json::Value& moduleMetric);

// Answers one request: {"ok": true, ...} or {"ok": false, "error": text}.
// A worker's wait ends early when `abort` is set.
Json::Value answerControlRequest(const Json::Value& request, const MetricsFile* metrics,
                                 CORE::coreevent& abort, std::uint32_t sendTimeoutMs);

class ControlServer {
public:
    ControlServer(std::filesystem::path socket, std::shared_ptr<const MetricsFile> metrics,
                  ControlLimits limits = {});
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens and starts the thread; false and `error` when the socket
    // cannot be made. Once only.
    bool start(std::string& error);
    // Ends a request under way and the thread, joins it and removes the
    // socket's name: a stopping host no longer answers. The socket itself is
    // closed when the server is destroyed, after the plug-ins have stopped.
    void stop();

private:
    void run();
    void serve(platform::LocalStream& client);

    const std::filesystem::path socket_;
    const std::shared_ptr<const MetricsFile> metrics_;
    const ControlLimits limits_;
    std::unique_ptr<platform::LocalListener> listener_ =
        std::make_unique<platform::LocalListener>();
    platform::StopSignal stop_;
    CORE::coreevent abort_;
    std::thread thread_;
};

}  // namespace ndpx::host
