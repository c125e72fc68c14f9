#include "config/mqttConfig.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>

#include <climits>
#include <cstdint>
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

const SettingDef& def(const wchar_t* name) {
    for (const auto& d : kTable) {
        if (std::wcscmp(d.name, name) == 0) {
            return d;
        }
    }
    // Only reachable through a typo in this file; the table is fixed.
    static const SettingDef kMissing{L"", L"0", 0, 0};
    return kMissing;
}

// Where the clone composer reports how far it customised the machine.
constexpr const char* kCustomizationStateValue = "CustomizationState";
constexpr int kCustomizationCompleted = 4;
constexpr int kCustomizationFailed = 5;

std::mutex g_instanceMutex;
std::shared_ptr<mqttConfig> g_instance;
int g_users = 0;

std::int64_t parseDecimal(const std::wstring& text) {
    return static_cast<std::int64_t>(std::wcstoll(text.c_str(), nullptr, 10));
}

bool isTrue(const std::wstring& v) {
    return CORE::iequals(v, L"true") || v == L"1" || CORE::iequals(v, L"yes");
}

}  // namespace

const char* migrationStatusName(int state) {
    static const char* const kNames[] = {
        "notstarted",     "bootstrap",        "connected",       "rollback",       "commit",
        "commitcomplete", "bootstrapinvalid", "bootstrapfailed", "rollbackfailed", "commitfailed"};
    return state >= 0 && state <= 9 ? kNames[state] : "unknown";
}

std::vector<std::wstring> splitList(const std::wstring& text) {
    std::vector<std::wstring> out;
    if (text.empty()) {
        return out;
    }
    std::size_t start = 0;
    for (;;) {
        const auto comma = text.find(L',', start);
        out.push_back(text.substr(start, comma - start));
        if (comma == std::wstring::npos) {
            return out;
        }
        start = comma + 1;
    }
}

std::wstring joinList(const std::vector<std::wstring>& items) {
    std::wstring out;
    for (const auto& item : items) {
        if (!out.empty()) {
            out += L',';
        }
        out += item;
    }
    return out;
}

mqttConfig::mqttConfig() : mqttConfig(nullptr) {}

mqttConfig::mqttConfig(std::shared_ptr<ndpx::platform::SettingsStore> store)
    : CORE::sysconfig(store ? std::move(store) : CORE::registryShared()) {
    composerAgentDetected_ = this->store().keyExists(kComposerKey);
    if (composerAgentDetected_) {
        MFW_LOG(CORE::kLogInfo, "XKPC agent detected");
    }
    init(CORE::toWide(kNodeManagerKey), defaultsList(), true, true);
}

mqttConfig::~mqttConfig() {
    // Stop the watch before this object's part goes: it calls changed().
    cleanup();
}

std::shared_ptr<mqttConfig> mqttConfig::load() {
    std::lock_guard lock(g_instanceMutex);
    if (!g_instance) {
        g_instance = std::make_shared<mqttConfig>();
    }
    ++g_users;
    return g_instance;
}

void mqttConfig::release() {
    std::shared_ptr<mqttConfig> last;
    {
        std::lock_guard lock(g_instanceMutex);
        if (g_users > 0 && --g_users == 0) {
            last = std::move(g_instance);
        }
    }
    // Destroyed outside the lock: the destructor joins the watch thread.
}

std::shared_ptr<mqttConfig> mqttConfig::current() {
    std::lock_guard lock(g_instanceMutex);
    return g_instance;
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

int mqttConfig::getIntInRange(const std::wstring& name, int min, int max) {
    std::lock_guard lock(this->lock());
    checkForChangesLockHeld();
    const Entry* entry = findLockHeld(name);
    if (entry == nullptr) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::getIntInRange(): Registry setting %s not defined, returning %d",
                CORE::toUtf8(name).c_str(), min);
        return min;
    }
    const auto value = static_cast<std::int32_t>(parseDecimal(entry->current));
    // One unsigned comparison rejects values below min as well as above max.
    const auto offset = static_cast<std::uint32_t>(static_cast<std::int64_t>(value) - min);
    const auto span = static_cast<std::uint32_t>(static_cast<std::int64_t>(max) - min);
    if (offset <= span) {
        return value;
    }
    MFW_LOG(CORE::kLogError,
            "mqttConfig::getIntInRange(): Registry setting %s out of range, returning default %s",
            CORE::toUtf8(name).c_str(), CORE::toUtf8(entry->defaultText).c_str());
    return static_cast<std::int32_t>(parseDecimal(entry->defaultText));
}

int mqttConfig::readInt(const wchar_t* name) {
    const SettingDef& d = def(name);
    return getIntInRange(name, d.min, d.max);
}

std::string mqttConfig::readNarrow(const wchar_t* name) {
    return CORE::toUtf8(get(name));
}

std::vector<std::wstring> mqttConfig::readList(const wchar_t* name) {
    return splitList(get(name));
}

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
    const std::int64_t value = parseDecimal(text);
    if (value < kMin || value > kMax) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::getIntInRange(): Registry setting %s out of range, returning "
                "default %d",
                "mqtt_HubRequestTimeout", kDefault);
        return kDefault;
    }
    return static_cast<int>(value);
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
    return static_cast<int>(std::strtol(value->asText().c_str(), nullptr, 10));
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

bool mqttConfig::writeString(const char* name, const std::string& value) {
    return store().set(kNodeManagerKey, name, ndpx::platform::SettingValue::ofString(value));
}

void mqttConfig::setEdgeId(const std::string& v) {
    writeString("mqtt_EdgeId", v);
}
void mqttConfig::setEdgeIdPend(const std::string& v) {
    writeString("mqtt_EdgeId_pend", v);
}
void mqttConfig::setAgentIdentity(const std::string& v) {
    writeString("mqtt_AgentIdentity", v);
}
void mqttConfig::setAgentIdentityPend(const std::string& v) {
    writeString("mqtt_AgentIdentity_pend", v);
}
void mqttConfig::setShortTemplateId(const std::string& v) {
    writeString("mqtt_ShortTemplateId", v);
}
void mqttConfig::setShortTemplateIdPend(const std::string& v) {
    writeString("mqtt_ShortTemplateId_pend", v);
}
void mqttConfig::setTemplateId(const std::string& v) {
    writeString("mqtt_TemplateId", v);
}
void mqttConfig::setVmId(const std::string& v) {
    writeString("mqtt_VmId", v);
}
void mqttConfig::setVmIdPend(const std::string& v) {
    writeString("mqtt_VmId_pend", v);
}
void mqttConfig::setOtp(const std::string& v) {
    writeString("mqtt_Otp", v);
}
void mqttConfig::setOtpUrl(const std::string& v) {
    writeString("mqtt_OtpUrl", v);
}
void mqttConfig::setPaired(bool paired) {
    writeString("mqtt_Paired", paired ? "true" : "false");
}
void mqttConfig::setUnwantedFields(const std::vector<std::wstring>& fields) {
    writeString("mqtt_UnwantedFields", CORE::toUtf8(joinList(fields)));
}
void mqttConfig::setUnwantedSessionFields(const std::vector<std::wstring>& fields) {
    writeString("mqtt_UnwantedSessionFields", CORE::toUtf8(joinList(fields)));
}

void mqttConfig::setMigrationStatus(int state) {
    store().set(kNodeManagerKey, "mqtt_MigrationStatus",
                ndpx::platform::SettingValue::ofDword(static_cast<std::uint32_t>(state)));
    MFW_LOG(CORE::kLogVerbose, "mqttConfig::setMigrationStatus(): Set migration status to %s",
            migrationStatusName(state));
    // The next read must see the new state at once.
    reload(false);
}

void mqttConfig::setMonitoringEndpoint(const std::string& endpoint) {
    CORE::writeRegistryString(std::string(kMonitoringConfigKey) + "endpoint", endpoint);
}

void mqttConfig::setPairingSecrets(PairingSecrets secrets) {
    std::lock_guard lock(secretsMutex_);
    secrets_ = std::move(secrets);
}

mqttConfig::PairingSecrets mqttConfig::pairingSecrets() const {
    std::lock_guard lock(secretsMutex_);
    return secrets_;
}

void mqttConfig::setLiveChangeHandlers(LiveChangeHandlers handlers) {
    std::lock_guard lock(handlersMutex_);
    handlers_ = std::move(handlers);
}

void mqttConfig::changed(const std::wstring& name, const std::wstring& value) {
    CORE::sysconfig::changed(name, value);
    LiveChangeHandlers handlers;
    {
        std::lock_guard lock(handlersMutex_);
        handlers = handlers_;
    }
    if (CORE::iequals(name, L"AsyncSessionSeconds")) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): %s changed to %s",
                CORE::toUtf8(name).c_str(), CORE::toUtf8(value).c_str());
        if (handlers.asyncSessionSecondsChanged) {
            handlers.asyncSessionSecondsChanged();
        }
    } else if (CORE::iequals(name, L"mqtt_TriggerCertRefresh") && isTrue(value)) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): certificate refresh requested");
        if (handlers.triggerCertRefresh) {
            handlers.triggerCertRefresh(true);
        }
    } else if (CORE::iequals(name, L"mqtt_TriggerCertSwap") && isTrue(value)) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): certificate refresh and swap requested");
        if (handlers.triggerCertSwap) {
            handlers.triggerCertSwap();
        }
    }
}

}  // namespace ndpx
