#include "config/EndpointUrl.h"

#include <mfw/corestring.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace ndpx {
namespace {

bool isHostChar(unsigned char c) {
    return std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_';
}

// A name or IPv4 address; in brackets, an IPv6 address (with a zone).
bool validHost(const std::string& host, bool bracketed) {
    if (host.empty()) {
        return false;
    }
    if (bracketed) {
        return host.find(':') != std::string::npos &&
               std::all_of(host.begin(), host.end(), [](unsigned char c) {
                   return std::isxdigit(c) != 0 || c == ':' || c == '.' || c == '%' ||
                          std::isalnum(c) != 0;
               });
    }
    return std::all_of(host.begin(), host.end(), isHostChar);
}

}  // namespace

std::optional<EndpointUrl> parseEndpointUrl(const std::string& url) {
    if (std::any_of(url.begin(), url.end(),
                    [](unsigned char c) { return c <= 0x20 || c == 0x7f; })) {
        return std::nullopt;
    }
    const auto schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos) {
        return std::nullopt;
    }
    EndpointUrl out;
    out.scheme = CORE::toLowerAscii(url.substr(0, schemeEnd));
    constexpr std::array<const char*, 5> kSchemes = {"ssl", "mqtts", "tcp", "wss", "ws"};
    if (std::none_of(kSchemes.begin(), kSchemes.end(),
                     [&](const char* s) { return out.scheme == s; })) {
        return std::nullopt;
    }
    std::string authority = url.substr(schemeEnd + 3);
    if (const auto slash = authority.find('/'); slash != std::string::npos) {
        out.path = authority.substr(slash);
        authority.resize(slash);
    }
    std::string portText;
    const bool bracketed = !authority.empty() && authority.front() == '[';
    if (bracketed) {
        const auto close = authority.find(']');
        if (close == std::string::npos || close + 1 >= authority.size() ||
            authority[close + 1] != ':') {
            return std::nullopt;
        }
        out.host = authority.substr(1, close - 1);
        portText = authority.substr(close + 2);
    } else {
        const auto colon = authority.rfind(':');
        if (colon == std::string::npos) {
            return std::nullopt;
        }
        out.host = authority.substr(0, colon);
        portText = authority.substr(colon + 1);
    }
    // No user part, no stray brackets; an IPv6 address needs its brackets.
    if (!validHost(out.host, bracketed) || portText.empty() || portText.size() > 5 ||
        !std::all_of(portText.begin(), portText.end(),
                     [](unsigned char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    out.port = std::stoi(portText);
    if (out.port < 1 || out.port > 65535) {
        return std::nullopt;
    }
    return out;
}

}  // namespace ndpx
