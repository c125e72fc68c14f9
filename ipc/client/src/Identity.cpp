#include <ipcclient/Identity.h>

#include "WireFormat.h"

namespace ndpx::ipcclient {

std::optional<Identity> parseIdentity(std::span<const std::uint8_t> payload, IpcError& error) {
    const std::string_view text(reinterpret_cast<const char*>(payload.data()), payload.size());
    Json::Value json;
    std::string reason;
    if (!detail::parseJsonObject(text, json, reason)) {
        error = {IpcErrc::Malformed, "the bootstrap is not a JSON object (" + reason + ")"};
        return std::nullopt;
    }
    if (json["type"] != "setidentity" || !json["data"].isObject()) {
        error = {IpcErrc::Malformed,
                 "the bootstrap is not {\"type\":\"setidentity\",\"data\":{...}}"};
        return std::nullopt;
    }
    const Json::Value& data = json["data"];
    Identity identity;
    const std::pair<const char*, std::string*> fields[] = {
        {"edgeid", &identity.edgeId},
        {"shorttemplateid", &identity.shortTemplateId},
        {"vmid", &identity.vmId},
        {"identity", &identity.identity},
    };
    for (const auto& [name, field] : fields) {
        if (!data[name].isString()) {
            error = {IpcErrc::Malformed,
                     std::string("the bootstrap has no string \"data\".\"") + name + "\""};
            return std::nullopt;
        }
        *field = data[name].asString();
    }
    error = {};
    return identity;
}

}  // namespace ndpx::ipcclient
