#pragma once
// Broker endpoints as the control plane names them: "ssl://host:port",
// "wss://host:port/mqtt", an IPv6 host in brackets.

#include <optional>
#include <string>

namespace ndpx {

struct EndpointUrl {
    std::string scheme;  // lower case: ssl, mqtts, tcp, wss or ws
    std::string host;    // without brackets
    int port = 0;        // 1..65535
    std::string path;    // from the first '/' after the authority, or empty
};

// Nothing for anything else (no scheme, unknown scheme, no or bad port,
// empty host, spaces or control characters).
std::optional<EndpointUrl> parseEndpointUrl(const std::string& url);

}  // namespace ndpx
