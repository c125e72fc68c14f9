// Broker endpoint URLs as the credential service or an endpoint change names
// them: any text. An accepted URL reads back the same once rebuilt from its
// parts.

#include "FuzzCheck.h"
#include "config/EndpointUrl.h"

#include <cstdint>
#include <string>

namespace {

// The URL the parts describe; a host that would not read back bare (an IPv6
// address, or one that itself begins with a bracket) goes in brackets.
std::string rebuilt(const ndpx::EndpointUrl& parts) {
    const bool bracket = parts.host.find(':') != std::string::npos;
    return parts.scheme + "://" + (bracket ? "[" + parts.host + "]" : parts.host) + ":" +
           std::to_string(parts.port) + parts.path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string url(reinterpret_cast<const char*>(data), size);
    const auto parts = ndpx::parseEndpointUrl(url);
    if (!parts) {
        return 0;
    }
    if (parts->host.empty() || parts->port < 1 || parts->port > 65535) {
        ndpx::fuzz::fail("accepted without host or port", url);
    }
    const auto again = ndpx::parseEndpointUrl(rebuilt(*parts));
    if (!again || again->scheme != parts->scheme || again->host != parts->host ||
        again->port != parts->port || again->path != parts->path) {
        ndpx::fuzz::fail("reads back differently", url);
    }
    return 0;
}
