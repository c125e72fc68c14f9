#include "BrokerEndpoint.h"

#include "devca/DevCa.h"

#include <json/json.h>

#include <fstream>
#include <system_error>

namespace ndpx::devcloud {

std::filesystem::path brokerEndpointFile(const std::filesystem::path& dir) {
    return dir / "broker.json";
}

BrokerEndpoint endpointForListener(const std::string& bindAddress, int port) {
    const bool wildcard = bindAddress.empty() || bindAddress == "0.0.0.0" || bindAddress == "::";
    return {wildcard ? "127.0.0.1" : bindAddress, port};
}

bool writeBrokerEndpoint(const std::filesystem::path& dir, const BrokerEndpoint& endpoint) {
    Json::Value v(Json::objectValue);
    v["host"] = endpoint.host;
    v["port"] = endpoint.port;
    return devca::writePrivateFile(brokerEndpointFile(dir).string(),
                                   Json::writeString(Json::StreamWriterBuilder(), v) + "\n");
}

std::optional<BrokerEndpoint> readBrokerEndpoint(const std::filesystem::path& dir) {
    std::ifstream in(brokerEndpointFile(dir));
    Json::Value v;
    if (!in || !Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr) ||
        !v.isObject() || !v["host"].isString() || !v["port"].isInt()) {
        return std::nullopt;
    }
    BrokerEndpoint endpoint{v["host"].asString(), v["port"].asInt()};
    if (endpoint.host.empty() || endpoint.port <= 0 || endpoint.port > 65535) {
        return std::nullopt;
    }
    return endpoint;
}

void removeBrokerEndpoint(const std::filesystem::path& dir, const BrokerEndpoint& endpoint) {
    const auto current = readBrokerEndpoint(dir);
    if (current && current->host == endpoint.host && current->port == endpoint.port) {
        std::error_code ignored;
        std::filesystem::remove(brokerEndpointFile(dir), ignored);
    }
}

}  // namespace ndpx::devcloud
