#include "Renewal.h"

#include "LogText.h"
#include "devcloud/Topics.h"

#include <json/json.h>

#include <cctype>
#include <memory>
#include <string_view>

namespace ndpx::devcloud {
namespace {

constexpr std::string_view kRequestPrefix = "desktop/";
constexpr std::string_view kRequestSuffix = "/agent/credentials/request";

// A name that fits in one topic level and in a log line as it is.
bool plainName(const std::string& text) {
    if (text.empty() || text.size() > 128) {
        return false;
    }
    for (const char c : text) {
        if (c <= ' ' || c > '~' || c == '/' || c == '+' || c == '#') {
            return false;
        }
    }
    return true;
}

bool digitsAt(const std::string& text, std::size_t pos, std::size_t n, int low, int high) {
    int value = 0;
    for (std::size_t i = pos; i < pos + n; ++i) {
        if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    return value >= low && value <= high;
}

// RFC 3339 in UTC: YYYY-MM-DDTHH:MM:SS, optional fraction, then Z.
bool isUtcTime(const std::string& text) {
    constexpr std::string_view kSeparators = "--T::";
    constexpr std::size_t kSeparatorAt[] = {4, 7, 10, 13, 16};
    if (text.size() < 20) {
        return false;
    }
    for (std::size_t i = 0; i < kSeparators.size(); ++i) {
        if (std::toupper(static_cast<unsigned char>(text[kSeparatorAt[i]])) != kSeparators[i]) {
            return false;
        }
    }
    if (!digitsAt(text, 0, 4, 0, 9999) || !digitsAt(text, 5, 2, 1, 12) ||
        !digitsAt(text, 8, 2, 1, 31) || !digitsAt(text, 11, 2, 0, 23) ||
        !digitsAt(text, 14, 2, 0, 59) || !digitsAt(text, 17, 2, 0, 60)) {
        return false;
    }
    std::size_t i = 19;
    if (text[i] == '.') {
        const std::size_t first = ++i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) != 0) {
            ++i;
        }
        if (i == first) {
            return false;
        }
    }
    return i + 1 == text.size() && std::toupper(static_cast<unsigned char>(text[i])) == 'Z';
}

}  // namespace

std::string desktopOfRequestTopic(const std::string& topic) {
    const std::string_view t(topic);
    if (t.size() <= kRequestPrefix.size() + kRequestSuffix.size() ||
        t.substr(0, kRequestPrefix.size()) != kRequestPrefix ||
        t.substr(t.size() - kRequestSuffix.size()) != kRequestSuffix) {
        return {};
    }
    return topic.substr(kRequestPrefix.size(),
                        t.size() - kRequestPrefix.size() - kRequestSuffix.size());
}

std::optional<RenewalRequest> parseRenewalRequest(const std::string& topic,
                                                  const std::string& payload, std::string& error) {
    RenewalRequest r;
    r.desktopId = desktopOfRequestTopic(topic);
    if (r.desktopId.empty()) {
        error = "not a credentials request topic";
        return std::nullopt;
    }
    if (payload.size() > kMaxRenewalRequestBytes) {
        error = "the request has " + std::to_string(payload.size()) + " bytes (at most " +
                std::to_string(kMaxRenewalRequestBytes) + ")";
        return std::nullopt;
    }
    Json::Value request;
    std::string parseErrors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(payload.data(), payload.data() + payload.size(), &request, &parseErrors) ||
        !request.isObject()) {
        error = "the request is not a JSON object";
        return std::nullopt;
    }
    for (const auto& [name, field] : {std::pair{"agentIdentity", &r.agentIdentity},
                                      std::pair{"vmId", &r.vmId}, std::pair{"reason", &r.reason},
                                      std::pair{"certificateNotAfter", &r.certificateNotAfter}}) {
        const Json::Value& v = request[name];
        if (!v.isString() || v.asString().empty()) {
            error = std::string(name) + " is missing or not a non-empty string";
            return std::nullopt;
        }
        *field = v.asString();
    }
    if (const Json::Value& moving = request["pendingAgentIdentity"]; !moving.isNull()) {
        if (!moving.isString() || !plainName(moving.asString())) {
            error = "pendingAgentIdentity must be a printable name without '/', '+' or '#'";
            return std::nullopt;
        }
        r.pendingAgentIdentity = moving.asString();
    }
    if (!plainName(r.agentIdentity) || !plainName(r.vmId)) {
        error = "agentIdentity and vmId must be printable names without '/', '+' or '#'";
        return std::nullopt;
    }
    if (!isUtcTime(r.certificateNotAfter)) {
        error = "certificateNotAfter \"" + printable(r.certificateNotAfter) +
                "\" is not an RFC 3339 UTC time";
        return std::nullopt;
    }
    // A desktop may only ask for itself: the token goes to its own topic.
    if (!desktopNames(r.desktopId, {r.vmId, r.agentIdentity, {}})) {
        error = "the request names " + r.agentIdentity + " (vmId " + r.vmId + "), not this desktop";
        return std::nullopt;
    }
    return r;
}

bool desktopNames(const std::string& desktopId, const OtpGrant& grant) {
    const auto slash = desktopId.find('/');
    if (slash == std::string::npos) {
        return desktopId == grant.agentIdentity;
    }
    const std::string_view edge(desktopId.data(), slash);
    return !edge.empty() && desktopId.compare(slash + 1, std::string::npos, grant.vmId) == 0 &&
           std::string_view(grant.agentIdentity).substr(0, edge.size()) == edge;
}

std::string tokenMessage(const std::string& otp, const TokenOptions& options) {
    Json::Value v(Json::objectValue);
    v["otp"] = otp;
    v["nexHubUrl"] = options.url;
    v["forceCertSwap"] = options.forceSwap;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, v);
}

bool sendToken(MqttClient& client, const std::filesystem::path& dir, const std::string& desktopId,
               const OtpGrant& grant, const TokenOptions& options, std::string& error) {
    OtpStore store(dir);
    std::string otp;
    try {
        otp = store.issue(grant);
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    if (client.publish(credentialsTokenTopic(desktopId), tokenMessage(otp, options), 1)) {
        return true;
    }
    error = "cannot publish the token: " + client.lastError();
    try {
        store.withdraw(otp);
    } catch (const std::exception&) {
        // The lost token is the news; an unused entry does no harm.
    }
    return false;
}

}  // namespace ndpx::devcloud
