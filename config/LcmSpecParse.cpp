// The LCM spec as text: which members it must have, what they must hold, and
// the identities formed from them. Nothing here reads or writes a store, so
// the checks can be run on any text.

#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"

#include <mfw/moduleLog.h>

#include <json/value.h>

namespace ndpx {

std::optional<mqttConfig::LcmSpec> mqttConfig::ParseLCMSpec(std::string_view text) {
    Json::Value json;
    // A document that is not an object carries none of the members: treat it
    // as unparsable rather than as a list of missing fields.
    if (!MqttManagerUtil::parseJson(text, json) || !json.isObject()) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::InitLCMSpecFromJSON(): Failed to parse LCM Spec file");
        return std::nullopt;
    }

    LcmSpec spec;
    if (!JsonUtil::GetStringProperty(json, "name", spec.name)) {
        MFW_LOG(CORE::kLogWarning, "mqttConfig::InitLCMSpecFromJSON(): Agent name is empty.");
    }
    if (!JsonUtil::GetStringProperty(json, "shortTemplateId", spec.shortTemplateId)) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::InitLCMSpecFromJSON(): Agent shortTemplateId is empty.");
        return std::nullopt;
    }
    if (!JsonUtil::GetStringProperty(json, "vmId", spec.vmId)) {
        MFW_LOG(CORE::kLogError, "mqttConfig::InitLCMSpecFromJSON(): Agent VM ID is empty.");
        return std::nullopt;
    }
    if (!json.isMember("edgeGateway")) {
        MFW_LOG(CORE::kLogInfo,
                "mqttConfig::InitLCMSpecFromJSON(): Unable to find edge bootstrap information");
        return std::nullopt;
    }
    const Json::Value& edgeGateway = json["edgeGateway"];
    if (!JsonUtil::GetStringProperty(edgeGateway, "id", spec.edgeId)) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::InitLCMSpecFromJSON(): Unable to find edge id bootstrap information");
        return std::nullopt;
    }

    spec.agentIdentity = makeAgentIdentity(spec.edgeId, spec.shortTemplateId, spec.vmId);
    MFW_LOG(CORE::kLogInfo, "mqttConfig::InitLCMSpecFromJSON(): Agent ID: %s",
            spec.agentIdentity.c_str());
    spec.shortAgentIdentity = makeShortAgentIdentity(spec.shortTemplateId, spec.vmId);
    MFW_LOG(CORE::kLogInfo, "mqttConfig::InitLCMSpecFromJSON(): Monitoring short Agent ID: %s",
            spec.shortAgentIdentity.c_str());

    if (!json.isMember("nexHub")) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::InitLCMSpecFromJSON(): Could not find nexHub property in JSON");
        return std::nullopt;
    }
    const Json::Value& nexHub = json["nexHub"];
    if (!nexHub.isObject()) {
        // The text names vmId; operators' searches rely on it as it is.
        MFW_LOG(CORE::kLogError,
                "mqttConfig::InitLCMSpecFromJSON(): Could not find vmId property in JSON");
        return std::nullopt;
    }
    if (!JsonUtil::GetStringProperty(nexHub, "url", spec.otpUrl)) {
        MFW_LOG(CORE::kLogError, "mqttConfig::InitLCMSpecFromJSON(): url is empty.");
        return std::nullopt;
    }
    // Redacted by name when the reader logs it.
    if (!JsonUtil::GetStringProperty(nexHub, "oneTimePassword", spec.otp)) {
        MFW_LOG(CORE::kLogError, "mqttConfig::InitLCMSpecFromJSON(): OTP is empty.");
        return std::nullopt;
    }

    GetMonitoringBootstrap(edgeGateway, spec.monitoringEndpoint);

    if (json.isMember("proxyInfo")) {
        const Json::Value& proxy = json["proxyInfo"];
        static const std::pair<const char*, const char*> kProxyValues[] = {
            {"server", "HTTP Proxy Server"},
            {"bypass", "HTTP Proxy Bypass"},
            {"autoConfig", "HTTP Proxy Auto Config URL"},
        };
        for (const auto& [member, setting] : kProxyValues) {
            if (std::string value; JsonUtil::GetStringProperty(proxy, member, value)) {
                spec.proxySettings.emplace_back(setting, std::move(value));
            }
        }
    }
    JsonUtil::GetBooleanProperty(json, "skipDomainJoin", spec.skipDomainJoin);
    return spec;
}

bool mqttConfig::GetMonitoringBootstrap(const Json::Value& edgeGateway, std::string& endpoint) {
    endpoint.clear();
    std::string port;
    std::string fqdn;
    std::string managementIp;
    JsonUtil::GetStringProperty(edgeGateway, "port", port);
    JsonUtil::GetStringProperty(edgeGateway, "fqdn", fqdn);
    JsonUtil::GetStringProperty(edgeGateway, "managementIp", managementIp);
    const std::string& host = fqdn.empty() ? managementIp : fqdn;
    if (host.empty()) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::GetMonitoringBootstrap(): LmMon bootstrap information not found");
        return false;
    }
    endpoint = port.empty() ? host : host + ":" + port;
    return true;
}

}  // namespace ndpx
