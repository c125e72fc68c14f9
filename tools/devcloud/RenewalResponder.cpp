#include "RenewalResponder.h"

#include "LogText.h"
#include "OtpStore.h"

#include <utility>

namespace ndpx::devcloud {

RenewalResponder::RenewalResponder(ClientOptions options, std::filesystem::path dir,
                                   TokenOptions token, LogSink sink)
    : dir_(std::move(dir)),
      token_(std::move(token)),
      log_(std::move(sink)),
      client_(std::move(options)) {}

RenewalResponder::~RenewalResponder() {
    stop();
}

bool RenewalResponder::start(std::chrono::milliseconds limit) {
    if (!client_.connect(limit)) {
        return false;
    }
    for (const char* filter : kRequestFilters) {
        // QoS 2 as the agent publishes: each request is answered once.
        if (!client_.subscribe(filter, 2, limit)) {
            return false;
        }
    }
    worker_ = std::thread([this] { run(); });
    return true;
}

void RenewalResponder::stop() {
    client_.cancelWaits();
    if (worker_.joinable()) {
        worker_.join();
    }
}

void RenewalResponder::run() {
    while (!client_.cancelled()) {
        // Only request topics are subscribed.
        if (const auto request = client_.waitForMessage("#", std::chrono::hours(1))) {
            answer(*request);
        }
    }
}

void RenewalResponder::answer(const Message& message) {
    const std::string desktop = desktopOfRequestTopic(message.topic);
    const std::string who = "renewer: " + printable(desktop.empty() ? message.topic : desktop);
    std::string error;
    const auto request = parseRenewalRequest(message.topic, message.payload, error);
    if (!request) {
        log_(who + ": refused: " + error);
        return;
    }
    const std::string names = request->agentIdentity + " (vmId " + request->vmId;
    try {
        const auto pairing = OtpStore(dir_).lastRedeemed([&](const OtpGrant& g) {
            return g.vmId == request->vmId && g.agentIdentity == request->agentIdentity;
        });
        if (!pairing) {
            log_(who + ": refused: no pairing of " + names + ") on record");
            return;
        }
        std::optional<OtpGrant> grant = pairing;
        if (!request->pendingAgentIdentity.empty() &&
            request->pendingAgentIdentity != request->agentIdentity) {
            // Only the move the control plane ordered: a desktop cannot name
            // itself anew.
            grant = OtpStore(dir_).moveOf(request->vmId, request->agentIdentity,
                                          request->pendingAgentIdentity);
            if (!grant) {
                log_(who + ": refused: no move of " + names + ") to " +
                     request->pendingAgentIdentity + " on record");
                return;
            }
        }
        if (!sendToken(client_, dir_, desktop, *grant, token_, error)) {
            log_(who + ": failed: " + error);
            return;
        }
    } catch (const std::exception& e) {
        log_(who + ": failed: " + e.what());
        return;
    }
    answered_.fetch_add(1);
    const std::string moving = request->pendingAgentIdentity.empty()
                                   ? std::string()
                                   : ", moving to " + request->pendingAgentIdentity;
    log_(who + ": token sent for " + names + moving + ", reason \"" + printable(request->reason) +
         "\", certificate valid until " + request->certificateNotAfter + ")");
}

}  // namespace ndpx::devcloud
