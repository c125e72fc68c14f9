#pragma once
// The desktop's MQTT topics, named from its identity.

#include <string>

namespace ndpx {

// Subscription index, as the subscription callbacks carry it.
enum SubscriptionIndex : int {
    kSubBootstrap = 0,
    kSubCommands = 1,
    kSubConfiguration = 2,
    kSubDTemplate = 3,
    kSubOtpToken = 4,
};
inline constexpr unsigned kAllSubscribed = 31;

struct SubscribeTopics {
    std::string bootstrap;
    std::string commands;
    std::string dtemplate;
    std::string configuration;
    std::string otpToken;

    bool empty() const {
        return bootstrap.empty() && commands.empty() && dtemplate.empty() &&
               configuration.empty() && otpToken.empty();
    }
    bool operator==(const SubscribeTopics&) const = default;
};

struct PublishTopics {
    std::string response;
    std::string desktopStatus;
    std::string sessionStatus;
    std::string sessionReport;
    std::string otpRequest;
    std::string notification;
    std::string eventLogger;
};

// "desktop/%s/..." filled with `id`, cut to 260 characters.
std::string formatTopic(const char* templ, const std::string& id);

}  // namespace ndpx
