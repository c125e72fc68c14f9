// mqttConfig's typed readers, one per setting, and the readers derived from
// several settings or from values outside the Node Manager key.

#include "mqttConfigInternal.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>

namespace ndpx {
namespace {

using settings::isTrue;
using settings::parseInt32;

// Where the clone composer reports how far it customised the machine.
constexpr const char* kCustomizationStateValue = "CustomizationState";
constexpr int kCustomizationCompleted = 4;
constexpr int kCustomizationFailed = 5;

}  // namespace

int mqttConfig::getAsyncSessionSeconds() {
    return readInt(L"AsyncSessionSeconds");
}
int mqttConfig::getCertMonitorIntervalHours() {
    return readInt(L"mqtt_CertMonitorIntervalHours");
}
int mqttConfig::getCertExpiryDays() {
    return readInt(L"mqtt_CertExpiryDays");
}
int mqttConfig::getCertRefreshTimeout() {
    return readInt(L"mqtt_CertRefreshTimeout");
}
int mqttConfig::getCertOtpRepeatInterval() {
    return readInt(L"mqtt_CertOtpRepeatInterval");
}
int mqttConfig::getMaxBufferedMessages() {
    return readInt(L"mqtt_MaxBufferedMessages");
}
int mqttConfig::getLWTQoS() {
    return readInt(L"mqtt_LWTQoS");
}
int mqttConfig::getKeepAliveInterval() {
    return readInt(L"mqtt_KeepAliveInterval");
}
int mqttConfig::getReconnectIntervalMin() {
    return readInt(L"mqtt_ReconnectIntervalMin");
}
int mqttConfig::getReconnectIntervalMax() {
    return readInt(L"mqtt_ReconnectIntervalMax");
}
int mqttConfig::getSessionExpiryInterval() {
    return readInt(L"mqtt_SessionExpiryInterval");
}
int mqttConfig::getMsgRetryInterval() {
    return readInt(L"mqtt_MsgRetryInterval");
}
int mqttConfig::getDuplicateMsgInterval() {
    return readInt(L"mqtt_DuplicateMsgInterval");
}
int mqttConfig::getDuplicateMsgTimerInterval() {
    return readInt(L"mqtt_DuplicateMsgTimerInterval") * 1000;
}
int mqttConfig::getStartupMinWaitInterval() {
    return readInt(L"mqtt_StartupMinWaitInterval");
}
int mqttConfig::getStartupMaxWaitInterval() {
    return readInt(L"mqtt_StartupMaxWaitInterval");
}
int mqttConfig::getStartupMinJitter() {
    return readInt(L"mqtt_StartupMinJitter");
}
int mqttConfig::getStartupMaxJitter() {
    return readInt(L"mqtt_StartupMaxJitter");
}
int mqttConfig::getHubRequestTimeout() {
    // Seconds one credential request to the hub may take, shared out over
    // resolve, connect, send and receive. Not in the defaults list: absent,
    // the request keeps the HTTPS client's own budget.
    constexpr int kDefault = 150;
    constexpr int kMin = 10;
    constexpr int kMax = 600;
    const std::wstring text = get(L"mqtt_HubRequestTimeout");
    if (text.empty()) {
        return kDefault;
    }
    const std::optional<std::int32_t> value = parseInt32(text);
    if (!value || *value < kMin || *value > kMax) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::getIntInRange(): Registry setting %s out of range, returning "
                "default %d",
                "mqtt_HubRequestTimeout", kDefault);
        return kDefault;
    }
    return *value;
}

int mqttConfig::getStartupMaxCachedRetries() {
    return readInt(L"mqtt_StartupMaxCachedRetries");
}
int mqttConfig::getStartupLCMSpecWaitInterval() {
    return readInt(L"mqtt_StartupLCMSpecWaitInterval");
}
int mqttConfig::getStartupFFWaitInterval() {
    return readInt(L"mqtt_StartupFFWaitInterval");
}
int mqttConfig::getDisconnectTimeout() {
    return readInt(L"mqtt_DisconnectTimeout");
}
int mqttConfig::getMigrationStatus() {
    return readInt(L"mqtt_MigrationStatus");
}
int mqttConfig::getAzureADJoinMaxInterval() {
    return readInt(L"mqtt_AzureADJoinMaxInterval");
}
int mqttConfig::getAzureADJoinQueryInterval() {
    return readInt(L"mqtt_AzureADJoinQueryInterval");
}
int mqttConfig::getEndpointChangeAttempts() {
    return readInt(L"mqtt_EndpointChangeAttempts");
}

bool mqttConfig::getSendWhileDisconnected() {
    return getBool(L"mqtt_SendWhileDisconnected");
}
bool mqttConfig::getAllowDisconnectedSendAtAnyTime() {
    return getBool(L"mqtt_AllowDisconnectedSendAtAnyTime");
}
bool mqttConfig::getDeleteOldestMessages() {
    return getBool(L"mqtt_DeleteOldestMessages");
}
bool mqttConfig::getAutomaticReconnect() {
    return getBool(L"mqtt_AutomaticReconnect");
}
bool mqttConfig::getCleanStart() {
    return getBool(L"mqtt_CleanStart");
}
bool mqttConfig::getCertRevocation() {
    return getBool(L"mqtt_CertRevocation");
}
bool mqttConfig::getDeleteLCMSpec() {
    return getBool(L"mqtt_DeleteLCMSpec");
}
bool mqttConfig::getSkipDomainJoin() {
    return isTrue(get(L"mqtt_SkipDomainJoin"));
}
bool mqttConfig::getIPCServerEnabled() {
    return getBool(L"mqtt_IPCServerEnabled");
}
bool mqttConfig::getMigrationMsgRcvd() {
    return getBool(L"mqtt_MigrationMsgRcvd");
}
bool mqttConfig::getContinuousPairEnabled() {
    return getBool(L"mqtt_ContinuousPairEnabled");
}
bool mqttConfig::getTriggerCertRefresh() {
    return getBool(L"mqtt_TriggerCertRefresh");
}
bool mqttConfig::getTriggerCertSwap() {
    return getBool(L"mqtt_TriggerCertSwap");
}

std::wstring mqttConfig::getHttpProxyServer() {
    return get(L"HTTP Proxy Server");
}
std::wstring mqttConfig::getHttpProxyBypass() {
    return get(L"HTTP Proxy Bypass");
}
std::wstring mqttConfig::getHttpProxyAutoConfigUrl() {
    return get(L"HTTP Proxy Auto Config URL");
}
std::wstring mqttConfig::getName() {
    return get(L"mqtt_Name");
}
std::wstring mqttConfig::getLWTMessage() {
    return get(L"mqtt_LWTMessage");
}
std::wstring mqttConfig::getMsTransport() {
    return get(L"MS Transport");
}
std::vector<std::wstring> mqttConfig::getUnwantedFields() {
    return readList(L"mqtt_UnwantedFields");
}
std::vector<std::wstring> mqttConfig::getUnwantedSessionFields() {
    return readList(L"mqtt_UnwantedSessionFields");
}

std::string mqttConfig::getAgentIdentity() {
    return readNarrow(L"mqtt_AgentIdentity");
}
std::string mqttConfig::getAgentIdentityPend() {
    return readNarrow(L"mqtt_AgentIdentity_pend");
}
std::string mqttConfig::getEdgeId() {
    return readNarrow(L"mqtt_EdgeId");
}
std::string mqttConfig::getEdgeIdPend() {
    return readNarrow(L"mqtt_EdgeId_pend");
}
std::string mqttConfig::getTemplateId() {
    return readNarrow(L"mqtt_TemplateId");
}
std::string mqttConfig::getShortTemplateId() {
    return readNarrow(L"mqtt_ShortTemplateId");
}
std::string mqttConfig::getShortTemplateIdPend() {
    return readNarrow(L"mqtt_ShortTemplateId_pend");
}
std::string mqttConfig::getVmId() {
    return readNarrow(L"mqtt_VmId");
}
std::string mqttConfig::getVmIdPend() {
    return readNarrow(L"mqtt_VmId_pend");
}
std::string mqttConfig::getOtp() {
    return readNarrow(L"mqtt_Otp");
}
std::string mqttConfig::getOtpUrl() {
    return readNarrow(L"mqtt_OtpUrl");
}
std::string mqttConfig::getSslCertThumbprint() {
    return readNarrow(L"mqtt_SslCertThumbprint");
}

int mqttConfig::getCustomizationState() {
    const auto value = store().get(kComposerKey, kCustomizationStateValue);
    if (!value) {
        return 0;
    }
    return parseInt32(CORE::toWide(value->asText())).value_or(0);
}

bool mqttConfig::isCustomizationFinished() {
    const int state = getCustomizationState();
    return state == kCustomizationCompleted || state == kCustomizationFailed;
}

bool mqttConfig::isMigrationActive() {
    const int state = getMigrationStatus();
    return state != static_cast<int>(MigrationStatus::NotStarted) &&
           state != static_cast<int>(MigrationStatus::CommitComplete);
}

bool mqttConfig::isOtherTransportActive() {
    const std::wstring transport = getMsTransport();
    if (transport.empty() || CORE::iequals(transport, L"MQTT")) {
        return false;
    }
    const int state = getMigrationStatus();
    return state == static_cast<int>(MigrationStatus::NotStarted) ||
           (state >= static_cast<int>(MigrationStatus::BootstrapInvalid) &&
            state <= static_cast<int>(MigrationStatus::CommitFailed));
}

std::map<std::string, std::string> mqttConfig::getIpcIncludeList() {
    std::map<std::string, std::string> list;
    for (const auto& [name, value] :
         store().listValues(std::string(kNodeManagerKey) + "\\ipcincludelist")) {
        list.emplace(name, value.asText());
    }
    return list;
}

std::string mqttConfig::getMonitoringEndpoint() {
    return CORE::readRegistry(std::string(kMonitoringConfigKey) + "endpoint").value_or("");
}

bool mqttConfig::isFipsMode() {
    return CORE::readRegistry(kFipsModeValue).value_or("") == "1";
}

std::string mqttConfig::getExternalIPAddress() {
    for (const char* key : {kAgentConfigurationPolicyKey, kAgentConfigurationKey}) {
        const auto value = store().get(std::string(key) + "\\XMLAPI", "ExternalIPAddress");
        if (value && !value->asText().empty()) {
            return value->asText();
        }
    }
    return {};
}

std::vector<std::pair<std::string, std::string>> mqttConfig::getListenerValues() {
    std::vector<std::pair<std::string, std::string>> values;
    for (const auto& [name, value] :
         store().listValues(std::string(kAgentConfigurationKey) + "\\Listeners")) {
        values.emplace_back(name, value.asText());
    }
    return values;
}

std::vector<std::string> mqttConfig::getListenerStrings() {
    const auto value = store().get(kAgentConfigurationKey, "Listeners");
    if (!value) {
        return {};
    }
    if (value->type == platform::SettingValue::Type::MultiString) {
        return value->multi;
    }
    return {value->asText()};
}
}  // namespace ndpx
