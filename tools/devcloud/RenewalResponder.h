#pragma once
// The control plane's side of certificate renewal, for every desktop: each
// credentials request that names a desktop paired from this folder is
// answered with a token (see Renewal.h) on that desktop's token topic.
// Requests are taken from the client's queue on a thread of its own, so the
// password store's file work never runs on the MQTT library's thread.

#include "Renewal.h"
#include "devcloud/MqttClient.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace ndpx::devcloud {

class RenewalResponder {
public:
    // One line per request, never a password.
    using LogSink = std::function<void(const std::string&)>;

    RenewalResponder(ClientOptions options, std::filesystem::path dir, TokenOptions token,
                     LogSink sink);
    ~RenewalResponder();  // stop()
    RenewalResponder(const RenewalResponder&) = delete;
    RenewalResponder& operator=(const RenewalResponder&) = delete;

    // Connects, subscribes to the request topics of every desktop and starts
    // answering. False with client().lastError() when it cannot.
    bool start(std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Ends the wait for requests and joins the thread. Idempotent.
    void stop();

    std::uint64_t answered() const { return answered_.load(); }
    const MqttClient& client() const { return client_; }

    // "desktop/+/..." matches one level only; desktop identifiers have one
    // (an agent identity) or two ("<edge id>/<vm id>").
    static constexpr const char* kRequestFilters[] = {"desktop/+/agent/credentials/request",
                                                      "desktop/+/+/agent/credentials/request"};

private:
    void run();
    void answer(const Message& request);

    const std::filesystem::path dir_;
    const TokenOptions token_;
    const LogSink log_;
    std::atomic<std::uint64_t> answered_{0};
    MqttClient client_;
    std::thread worker_;  // last: it uses everything above
};

}  // namespace ndpx::devcloud
