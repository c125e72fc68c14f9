// The settings table: every setting of the Node Manager key with its default
// and range, in the order of the defaults list handed to the host.

#include "mqttConfigInternal.h"

#include <cwchar>

namespace ndpx {
namespace {

constexpr int kNoRange = 0;

// The settings in the order of the defaults list handed to the host.
// Strings and booleans carry no range. Constant data: nothing to build (or
// fail) while the module loads.
constexpr SettingDef kTable[] = {
    {L"AsyncSessionSeconds", L"150", 5, 600},
    {L"HTTP Proxy Server", L"", kNoRange, kNoRange},
    {L"HTTP Proxy Bypass", L"", kNoRange, kNoRange},
    {L"HTTP Proxy Auto Config URL", L"", kNoRange, kNoRange},
    {L"mqtt_CertMonitorIntervalHours", L"24", 1, 720},
    {L"mqtt_CertExpiryDays", L"30", 7, 365},
    {L"mqtt_CertRefreshTimeout", L"30", 10, 600},
    {L"mqtt_CertOtpRepeatInterval", L"60", 1, 600},
    {L"mqtt_AgentIdentity", L"", kNoRange, kNoRange},
    {L"mqtt_Name", L"", kNoRange, kNoRange},
    {L"mqtt_TemplateId", L"", kNoRange, kNoRange},
    {L"mqtt_ShortTemplateId", L"", kNoRange, kNoRange},
    {L"mqtt_VmId", L"", kNoRange, kNoRange},
    {L"mqtt_EdgeId", L"", kNoRange, kNoRange},
    {L"mqtt_Otp", L"", kNoRange, kNoRange},
    {L"mqtt_OtpUrl", L"", kNoRange, kNoRange},
    {L"mqtt_SslCertThumbprint", L"", kNoRange, kNoRange},
    {L"mqtt_SendWhileDisconnected", L"true", kNoRange, kNoRange},
    {L"mqtt_MaxBufferedMessages", L"2000", 0, 100000},
    {L"mqtt_AllowDisconnectedSendAtAnyTime", L"true", kNoRange, kNoRange},
    {L"mqtt_DeleteOldestMessages", L"true", kNoRange, kNoRange},
    {L"mqtt_LWTMessage", L"ERROR", kNoRange, kNoRange},
    {L"mqtt_LWTQoS", L"1", 0, 2},
    {L"mqtt_KeepAliveInterval", L"30", 0, 600},
    {L"mqtt_AutomaticReconnect", L"true", kNoRange, kNoRange},
    {L"mqtt_ReconnectIntervalMin", L"5", 5, 60},
    {L"mqtt_ReconnectIntervalMax", L"600", 60, 1800},
    {L"mqtt_CleanStart", L"false", kNoRange, kNoRange},
    {L"mqtt_SessionExpiryInterval", L"300", 0, 3000},
    {L"mqtt_MsgRetryInterval", L"90", 0, 3000},
    {L"mqtt_DuplicateMsgInterval", L"300", 0, 600},
    {L"mqtt_DuplicateMsgTimerInterval", L"60", 10, 600},
    {L"mqtt_StartupMinWaitInterval", L"10", 10, 3600},
    {L"mqtt_StartupMaxWaitInterval", L"3600", 10, 3600},
    {L"mqtt_StartupMinJitter", L"0", 0, 60},
    {L"mqtt_StartupMaxJitter", L"10", 0, 60},
    {L"mqtt_StartupMaxCachedRetries", L"3", 0, 10},
    {L"mqtt_StartupLCMSpecWaitInterval", L"60", 0, 600},
    {L"mqtt_StartupFFWaitInterval", L"60", 5, 600},
    {L"mqtt_DisconnectTimeout", L"15", 0, 3600},
    {L"mqtt_UnwantedFields", L"DOMAIN,AGENTUPDATE", kNoRange, kNoRange},
    {L"mqtt_UnwantedSessionFields", L"APPIDHISTORY,BROKERINGENDPOINTID,GROUPSIDS,HOSTPODID",
     kNoRange, kNoRange},
    {L"mqtt_CertRevocation", L"true", kNoRange, kNoRange},
    {L"mqtt_DeleteLCMSpec", L"true", kNoRange, kNoRange},
    {L"mqtt_SkipDomainJoin", L"false", kNoRange, kNoRange},
    {L"mqtt_IPCServerEnabled", L"false", kNoRange, kNoRange},
    // The word reads as the integer 0 (notstarted); the writer stores a number.
    {L"mqtt_MigrationStatus", L"notstarted", 0, 9},
    {L"mqtt_MigrationMsgRcvd", L"false", kNoRange, kNoRange},
    {L"MS Transport", L"", kNoRange, kNoRange},
    {L"mqtt_AzureADJoinMaxInterval", L"300", 60, 600},
    {L"mqtt_AzureADJoinQueryInterval", L"60", 30, 60},
    {L"mqtt_ContinuousPairEnabled", L"false", kNoRange, kNoRange},
    {L"mqtt_AgentIdentity_pend", L"", kNoRange, kNoRange},
    {L"mqtt_EdgeId_pend", L"", kNoRange, kNoRange},
    {L"mqtt_ShortTemplateId_pend", L"", kNoRange, kNoRange},
    {L"mqtt_VmId_pend", L"", kNoRange, kNoRange},
    {L"mqtt_EndpointChangeAttempts", L"3", 0, 30},
    {L"mqtt_TriggerCertRefresh", L"0", kNoRange, kNoRange},
};

}  // namespace

const SettingDef& settings::definition(const wchar_t* name) {
    for (const auto& d : kTable) {
        if (std::wcscmp(d.name, name) == 0) {
            return d;
        }
    }
    // Only reachable through a typo in the settings code; the table is fixed.
    static const SettingDef kMissing{L"", L"0", 0, 0};
    return kMissing;
}

std::span<const SettingDef> mqttConfig::table() {
    return kTable;
}

std::vector<std::wstring> mqttConfig::defaultsList() {
    std::vector<std::wstring> list;
    list.reserve(std::size(kTable));
    for (const auto& d : kTable) {
        list.push_back(std::wstring(d.name) + L"=" + d.defaultText);
    }
    return list;
}

}  // namespace ndpx
