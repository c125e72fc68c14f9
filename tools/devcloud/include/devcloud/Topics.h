#pragma once
// The desktop topics a control plane uses to talk to one desktop agent.

#include <string>

namespace ndpx::devcloud {

inline std::string commandsTopic(const std::string& desktopId) {
    return "desktop/" + desktopId + "/agent/sessions/commands";
}
inline std::string responseTopic(const std::string& desktopId) {
    return "desktop/" + desktopId + "/agent/sessions/response";
}
// Desktop template messages (customisation, time zone, new IDs).
inline std::string templateTopic(const std::string& desktopId) {
    return "desktop/" + desktopId + "/agent/receive/dtemplate";
}
// Certificate renewal: the agent asks on the request topic and is answered
// with a one-time password on the token topic.
inline std::string credentialsRequestTopic(const std::string& desktopId) {
    return "desktop/" + desktopId + "/agent/credentials/request";
}
inline std::string credentialsTokenTopic(const std::string& desktopId) {
    return "desktop/" + desktopId + "/agent/credentials/token";
}
// Everything one desktop (or, with "+", every desktop) publishes or receives.
inline std::string desktopFilter(const std::string& desktopId) {
    return "desktop/" + desktopId + "/#";
}

}  // namespace ndpx::devcloud
