#include "host/MetricsEndpoint.h"

#include "host/AcceptLoop.h"
#include "host/MetricsFile.h"
#include "host/PrometheusText.h"

#include <mfw/log.h>
#include <platform/Threads.h>

#include <sstream>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";
// A scraper's request is a few hundred bytes; its head must come at once.
constexpr std::size_t kMaxRequestBytes = 8192;
constexpr std::chrono::milliseconds kReadTimeout{2000};
constexpr std::chrono::milliseconds kWriteTimeout{5000};

std::string response(const char* status, const char* contentType, const std::string& body,
                     bool withBody = true, const char* extraHeaders = "") {
    std::ostringstream out;
    out << "HTTP/1.1 " << status << "\r\nContent-Type: " << contentType
        << "\r\nContent-Length: " << body.size() << "\r\nConnection: close\r\n"
        << extraHeaders << "\r\n";
    if (withBody) {
        out << body;
    }
    return out.str();
}

}  // namespace

std::string metricsHttpAnswer(const std::string& request, const MetricsFile& metrics) {
    constexpr const char* kText = "text/plain; charset=utf-8";
    const std::string line = request.substr(0, request.find_first_of("\r\n"));
    std::istringstream words(line);
    std::string method;
    std::string target;
    std::string version;
    if (!(words >> method >> target >> version) || !version.starts_with("HTTP/1.")) {
        return response("400 Bad Request", kText, "not an HTTP/1 request line\n");
    }
    const bool head = method == "HEAD";
    if (method != "GET" && !head) {
        return response("405 Method Not Allowed", kText, "only GET and HEAD\n", true,
                        "Allow: GET, HEAD\r\n");
    }
    // A query (Prometheus adds none, a browser may) does not change the answer.
    if (target.substr(0, target.find('?')) != "/metrics") {
        return response("404 Not Found", kText, "the metrics are at /metrics\n", !head);
    }
    return response("200 OK", kPrometheusContentType, metrics.prometheus(), !head);
}

MetricsEndpoint::MetricsEndpoint(std::shared_ptr<const MetricsFile> metrics)
    : metrics_(std::move(metrics)) {}

MetricsEndpoint::~MetricsEndpoint() {
    stop();
}

bool MetricsEndpoint::start(std::uint16_t port, std::string& error) {
    if (thread_.joinable()) {
        error = "the metrics endpoint runs once";
        return false;
    }
    if (!listener_.listen(port, error)) {
        return false;
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

void MetricsEndpoint::stop() {
    stop_.set();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void MetricsEndpoint::run() {
    platform::setCurrentThreadOsName("MetricsHttp");
    acceptUntilStopped(listener_, stop_, "metrics endpoint",
                       [this](platform::LocalStream& client) { serve(client); });
}

void MetricsEndpoint::serve(platform::LocalStream& client) {
    // The head, line by line up to the blank line; a body is not expected.
    std::string head;
    for (;;) {
        if (head.size() >= kMaxRequestBytes) {
            CORE::__SysMessage(kSource, CORE::kLogDebug,
                               "metrics endpoint: request dropped: head over %zu bytes",
                               kMaxRequestBytes);
            return;
        }
        std::string line;
        const platform::IoResult read =
            client.readLine(line, kMaxRequestBytes - head.size(), kReadTimeout, &stop_);
        if (read != platform::IoResult::Ok) {
            if (read != platform::IoResult::Stopped) {
                CORE::__SysMessage(kSource, CORE::kLogDebug,
                                   "metrics endpoint: request dropped: %s",
                                   platform::ioResultText(read));
            }
            return;
        }
        if (line.empty() || line == "\r") {
            break;
        }
        head += line;
        head += '\n';
    }
    const platform::IoResult written =
        client.writeAll(metricsHttpAnswer(head, *metrics_), kWriteTimeout, &stop_);
    if (written != platform::IoResult::Ok && written != platform::IoResult::Stopped) {
        CORE::__SysMessage(kSource, CORE::kLogDebug, "metrics endpoint: answer not delivered: %s",
                           platform::ioResultText(written));
    }
}

}  // namespace ndpx::host
