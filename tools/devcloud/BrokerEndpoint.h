#pragma once
// Where the development broker listens, as `devcloud broker` leaves it in the
// devcloud folder (broker.json) for the credential service to hand out.

#include <filesystem>
#include <optional>
#include <string>

namespace ndpx::devcloud {

struct BrokerEndpoint {
    std::string host;
    int port = 0;
};

std::filesystem::path brokerEndpointFile(const std::filesystem::path& dir);

// The endpoint a client should use for a listener bound to `bindAddress`
// (a wildcard address becomes the loopback address).
BrokerEndpoint endpointForListener(const std::string& bindAddress, int port);

// {"host": ..., "port": ...}, written atomically. False when it cannot be
// written.
bool writeBrokerEndpoint(const std::filesystem::path& dir, const BrokerEndpoint& endpoint);
// nullopt when there is no file or it does not hold a host and a port.
std::optional<BrokerEndpoint> readBrokerEndpoint(const std::filesystem::path& dir);
// Removes the file if it still names `endpoint` (a newer broker's file stays).
void removeBrokerEndpoint(const std::filesystem::path& dir, const BrokerEndpoint& endpoint);

}  // namespace ndpx::devcloud
