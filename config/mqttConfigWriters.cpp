// mqttConfig's writers: straight to the settings store, not through the
// settings list, which picks the new values up at its next read.

#include "mqttConfigInternal.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>

#include <algorithm>
#include <iterator>
#include <string_view>

namespace ndpx {

namespace {

// Values that hold a secret: the one-time password, and the proxy addresses,
// which may carry a user name and password.
bool holdsSecret(std::string_view name) {
    constexpr std::string_view kSecrets[] = {"mqtt_Otp", "HTTP Proxy Server",
                                             "HTTP Proxy Auto Config URL"};
    return std::find(std::begin(kSecrets), std::end(kSecrets), name) != std::end(kSecrets);
}

}  // namespace

bool mqttConfig::writeString(const char* name, const std::string& value) {
    const bool written =
        store().set(kNodeManagerKey, name, ndpx::platform::SettingValue::ofString(value));
    if (!written) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::writeString(): Unable to write %s to the settings store: %s", name,
                store().lastWriteError().c_str());
    }
    // The store's files must not keep an overwritten secret (a used password)
    // beside the live value.
    if (written && holdsSecret(name) && !store().scrub()) {
        MFW_LOG(CORE::kLogWarning,
                "mqttConfig::writeString(): Earlier values of %s may remain in the settings "
                "store's files",
                name);
    }
    return written;
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
}  // namespace ndpx
