#pragma once
// The agent's identity as the bridge announces it: the payload of the
// bootstrap message on topic "core", sent right after the bridge accepts a
// connection and again whenever the identity changes:
//   {"version":1,"type":"setidentity",
//    "data":{"edgeid":..,"shorttemplateid":..,"vmid":..,"identity":..}}

#include <ipcclient/IpcError.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace ndpx::ipcclient {

struct Identity {
    std::string edgeId;
    std::string shortTemplateId;
    std::string vmId;
    std::string identity;  // the agent's MQTT identity

    bool operator==(const Identity&) const = default;
};

// Parses a bootstrap payload (decoded bytes, not base64). The four fields
// must be JSON strings (they may be empty); "version" is not checked.
// Nothing, with `error` set to Malformed and the reason, when the payload is
// not such a document.
std::optional<Identity> parseIdentity(std::span<const std::uint8_t> payload, IpcError& error);

}  // namespace ndpx::ipcclient
