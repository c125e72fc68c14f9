#pragma once
// Client-certificate renewal as the control plane answers it: an agent asks
// on its credentials request topic, and is given a fresh one-time password
// for the credential service on its token topic; with it the agent pairs
// again, for the same identity, as it did the first time.

#include "OtpStore.h"
#include "devcloud/MqttClient.h"

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

namespace ndpx::devcloud {

inline constexpr std::size_t kMaxRenewalRequestBytes = 4096;

// What an agent sends: {"agentIdentity", "vmId", "reason",
// "certificateNotAfter"} and, while it moves to new IDs,
// "pendingAgentIdentity"; and the desktop whose topic it came on.
struct RenewalRequest {
    std::string desktopId;
    std::string agentIdentity;
    std::string pendingAgentIdentity;  // empty unless the desktop moves
    std::string vmId;
    std::string reason;
    std::string certificateNotAfter;  // RFC 3339, UTC ("Z")
};

// The desktop identifier of a credentials request topic; empty when `topic`
// is none.
std::string desktopOfRequestTopic(const std::string& topic);

// The request on `topic`; nullopt, with why in `error` (fit for a log line),
// when the topic is not a request topic, the payload is too large, not a
// JSON object, lacks a field or has one that is malformed, or names another
// desktop than the topic's.
std::optional<RenewalRequest> parseRenewalRequest(const std::string& topic,
                                                  const std::string& payload, std::string& error);

// Whether `desktopId` is the desktop identifier of `grant`'s desktop: its
// agent identity, or "<edge id>/<vm id>" for an identity that starts with
// the edge id.
bool desktopNames(const std::string& desktopId, const OtpGrant& grant);

struct TokenOptions {
    std::string url;  // the credential service, as agents reach it
    bool forceSwap = false;
};

// {"otp", "nexHubUrl", "forceCertSwap"}
std::string tokenMessage(const std::string& otp, const TokenOptions& options);

// Records a fresh password for `grant` in the store in `dir` and publishes
// the token on the desktop's token topic (QoS 1, acknowledged by the
// broker). A password whose token did not go out is withdrawn. False, with
// `error` set, on failure; the password is never in `error`.
bool sendToken(MqttClient& client, const std::filesystem::path& dir, const std::string& desktopId,
               const OtpGrant& grant, const TokenOptions& options, std::string& error);

}  // namespace ndpx::devcloud
