// The LCM spec: where the provisioning file is found, how its values reach
// the settings store, how the agent identity is formed from them, and the
// clean-up of the values that pairing uses only once.

#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>
#include <platform/SecureFile.h>

#include <cstddef>
#include <string>
#include <utility>

namespace ndpx {
namespace {

namespace fs = std::filesystem;

// A provisioning document is a few hundred bytes; anything far larger is not
// one, and reading it whole would only cost memory.
constexpr std::size_t kMaxSpecBytes = 1 << 20;

bool fileExists(const fs::path& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

void deleteSpecFile(const fs::path& path) {
    MFW_LOG(CORE::kLogDebug, "mqttConfig::DeleteLCMSpec(): Deleting LCM spec file %s",
            path.c_str());
    const platform::paths::FileRemoval removal = platform::paths::removeFile(path);
    if (removal.attributes) {
        MFW_LOG(CORE::kLogWarning,
                "mqttConfig::DeleteLCMSpec(): Unable to get attributes of LCM spec file: %s",
                removal.attributes.message().c_str());
    }
    if (removal.writable) {
        MFW_LOG(CORE::kLogWarning,
                "mqttConfig::DeleteLCMSpec(): Failed to set attribute on LCM spec file: %s",
                removal.writable.message().c_str());
    }
    if (!removal.removed) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::DeleteLCMSpec(): Successfully deleted LCM spec file");
    } else {
        MFW_LOG(CORE::kLogError, "mqttConfig::DeleteLCMSpec(): Failed to delete LCM spec file: %s",
                removal.removed.message().c_str());
    }
}

void deleteSpecIfAllowed(mqttConfig& config, const fs::path& path) {
    if (!config.getDeleteLCMSpec()) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::DeleteLCMSpec(): Skipping LCM spec deletion");
        return;
    }
    deleteSpecFile(path);
}

// The values the credentials request uses once.
void clearOneTimeValues(mqttConfig& config) {
    config.setOtp("");
    config.setOtpUrl("");
    config.store().set(kNodeManagerKey, "mqtt_SslCertThumbprint",
                       platform::SettingValue::ofString(""));
}

const char* sourceName(mqttConfig::LcmSpecSource source) {
    switch (source) {
        case mqttConfig::LcmSpecSource::FF:
            return "FF";
        case mqttConfig::LcmSpecSource::Azure:
            return "Azure";
        case mqttConfig::LcmSpecSource::Corvid:
            return "Corvid";
    }
    return "unknown";
}

fs::path pathFor(mqttConfig::LcmSpecSource source) {
    return source == mqttConfig::LcmSpecSource::Azure ? mqttConfig::cloudProvisioningFilePath()
                                                      : mqttConfig::lcmSpecFilePath();
}

}  // namespace

fs::path mqttConfig::lcmSpecFilePath() {
    return platform::paths::programData() / "Brasswick" / "Orvane" / "LmAgent" / "lcm-spec.json";
}

fs::path mqttConfig::cloudProvisioningFilePath() {
    return platform::paths::systemDrive() / "AzureData" / "CustomData.bin";
}

mqttConfig::LcmSpecSource mqttConfig::lcmSpecSource() {
    if (composerAgentDetected()) {
        return LcmSpecSource::FF;
    }
    return isMigrationActive() ? LcmSpecSource::Corvid : LcmSpecSource::Azure;
}

fs::path mqttConfig::lcmSpecPath() {
    return pathFor(lcmSpecSource());
}

std::string mqttConfig::makeAgentIdentity(const std::string& edgeId,
                                          const std::string& shortTemplateId,
                                          const std::string& vmId) {
    return edgeId + shortTemplateId + "_" + vmId;
}

std::string mqttConfig::makeShortAgentIdentity(const std::string& shortTemplateId,
                                               const std::string& vmId) {
    return shortTemplateId + "_" + vmId;
}

std::string mqttConfig::getShortAgentIdentity() {
    const auto value = store().get(kNodeManagerKey, "mqtt_ShortAgentIdentity");
    return value ? value->asText() : std::string();
}

bool mqttConfig::ReadLCMSpecFromFile() {
    MFW_LOG(CORE::kLogVerbose,
            "mqttConfig::ReadLCMSpecFromFile(): Attempting to read LCM spec from file.");
    // One decision for the whole read: the migration state may change meanwhile.
    const LcmSpecSource source = lcmSpecSource();
    const fs::path path = pathFor(source);
    MFW_LOG(CORE::kLogVerbose, "mqttConfig::ReadLCMSpecFromFile(): Looking for LCM spec file %s",
            path.c_str());

    switch (source) {
        case LcmSpecSource::FF:
        case LcmSpecSource::Corvid:
            if (!fileExists(path)) {
                MFW_LOG(CORE::kLogVerbose,
                        "mqttConfig::ReadLCMSpecFromFile(): LCM spec file not available from %s.",
                        sourceName(source));
                return false;
            }
            break;
        case LcmSpecSource::Azure:
            // The owner is named by kind, so there is no system identifier to
            // build and nothing that can fail before the owner check.
            if (!MqttManagerUtil::FileExistsWithRequiredOwner(path.string(), kLocalSystemOwner)) {
                MFW_LOG(CORE::kLogVerbose,
                        "mqttConfig::ReadLCMSpecFromFile(): LCM spec file not available from %s.",
                        sourceName(source));
                return false;
            }
            break;
    }

    MFW_LOG(CORE::kLogDebug, "mqttConfig::ReadLCMSpecFromFile(): Using LCM spec file %s",
            path.c_str());
    // The owner rule again, on the file actually read: it may have been
    // replaced since the check above.
    const platform::FileOwner owner =
        source == LcmSpecSource::Azure ? kLocalSystemOwner : platform::FileOwner::Anyone;
    platform::SecureFile file = platform::readSecureFile(path, owner, kMaxSpecBytes);
    if (file.error == platform::SecureFileError::UntrustedOwner) {
        MFW_LOG(CORE::kLogVerbose,
                "mqttConfig::ReadLCMSpecFromFile(): LCM spec file not available from %s.",
                sourceName(source));
        return false;
    }
    if (!file.ok()) {
        MFW_LOG(CORE::kLogError, "mqttConfig::ReadLCMSpecFromFile(): Failed to read file: %s: %s",
                path.c_str(), file.cause.message().c_str());
        return false;
    }
    const std::string content = std::move(file.text);

    // Before the content is looked at: a bad spec must not be read again.
    deleteSpecIfAllowed(*this, path);

    if (content.empty()) {
        MFW_LOG(CORE::kLogError, "mqttConfig::ReadLCMSpecFromFile(): LCM spec file is empty.");
        return false;
    }
    if (!InitLCMSpecFromJSON(content)) {
        MFW_LOG(CORE::kLogError, "mqttConfig::ReadLCMSpecFromFile(): LCM spec file parse failed.");
        return false;
    }
    return true;
}

bool mqttConfig::ReadLCMSpecFromRegistry() {
    MFW_LOG(CORE::kLogVerbose,
            "mqttConfig::ReadLCMSpecFromRegistry(): Attempting to read LCM spec from registry.");
    if (EnsureLCMSpecInRegistry()) {
        MFW_LOG(CORE::kLogDebug,
                "mqttConfig::ReadLCMSpecFromRegistry(): LCM spec obtained from registry.");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "mqttConfig::ReadLCMSpecFromRegistry(): LCM spec not in registry.");
    return false;
}

bool mqttConfig::InitLCMSpecFromJSON(const std::string& text) {
    const std::optional<LcmSpec> spec = ParseLCMSpec(text);
    if (!spec) {
        return false;
    }
    if (!spec->monitoringEndpoint.empty()) {
        setMonitoringEndpoint(spec->monitoringEndpoint);
    }
    // Only what the LCM spec gives replaces the stored proxy settings.
    for (const auto& [setting, value] : spec->proxySettings) {
        writeString(setting, value);
    }
    // A false flag writes nothing, so an earlier "true" stays.
    if (spec->skipDomainJoin) {
        writeString("mqtt_SkipDomainJoin", "true");
    }
    writeString("mqtt_Name", spec->name);
    setShortTemplateIdPend(spec->shortTemplateId);
    setVmIdPend(spec->vmId);
    setEdgeIdPend(spec->edgeId);
    setAgentIdentityPend(spec->agentIdentity);
    writeString("mqtt_ShortAgentIdentity", spec->shortAgentIdentity);
    setOtpUrl(spec->otpUrl);
    setOtp(spec->otp);
    return true;
}

bool mqttConfig::EnsureLCMSpecInRegistry() {
    const std::string vmId = getVmId();
    const std::string agentId = vmId.empty() ? std::string() : getAgentIdentity();
    if (vmId.empty() || agentId.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "mqttConfig::EnsureLCMSpecInRegistry(): Missing some LCM configuration. vmId=%s, "
                "agentId=%s. Bootstrap required.",
                vmId.c_str(), agentId.c_str());
        return false;
    }
    if (!HandleTopicMigration()) {
        MFW_LOG(CORE::kLogDebug,
                "mqttConfig::EnsureLCMSpecInRegistry(): Missing some LCM configuration. TemplateId "
                "not found. Bootstrap required.");
        return false;
    }
    const std::string shortTemplateId = getShortTemplateId();
    const std::string edgeId = shortTemplateId.empty() ? std::string() : getEdgeId();
    if (shortTemplateId.empty() || edgeId.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "mqttConfig::EnsureLCMSpecInRegistry(): Missing some LCM configuration. "
                "shortTemplateId=%s, edgeId=%s. Bootstrap required.",
                shortTemplateId.c_str(), edgeId.c_str());
        return false;
    }
    return true;
}

bool mqttConfig::HandleTopicMigration() {
    if (!getEdgeId().empty()) {
        MFW_LOG(
            CORE::kLogVerbose,
            "mqttConfig::HandleTopicMigration(): EgeId is present. Topic migration not needed.");
        return true;
    }
    const std::string shortTemplateId = getShortTemplateId();
    const std::string templateId = getTemplateId();
    if (shortTemplateId.empty() || templateId.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "mqttConfig::HandleTopicMigration(): Not enough information to derive EdgeId.");
        return false;
    }
    // The template id was edge id + short template id; the last occurrence
    // marks the join, as the edge id may itself contain the short id.
    const auto position = templateId.rfind(shortTemplateId);
    if (position == std::string::npos) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::HandleTopicMigration(): EdgeId could not be derived. TemplateId: %s. "
                "ShortTemplateId: %s.",
                templateId.c_str(), shortTemplateId.c_str());
        return false;
    }
    if (position == 0) {
        return false;  // nothing before the short id: no edge id to derive
    }
    const std::string edgeId = templateId.substr(0, position);
    MFW_LOG(CORE::kLogDebug, "mqttConfig::HandleTopicMigration(): Derived EdgeId: %s.",
            edgeId.c_str());
    setEdgeId(edgeId);
    // The template id is written back unchanged: topic names are built from
    // it as before, and the derived edge id is now stored beside it.
    setTemplateId(templateId);
    return true;
}

void mqttConfig::DeleteLCMSpec() {
    deleteSpecIfAllowed(*this, lcmSpecPath());
}

void mqttConfig::CleanLCMPairingConfiguration() {
    MFW_LOG(CORE::kLogDebug,
            "mqttConfig::CleanLCMPairingConfiguration(): Cleaning LCM temporary pairing "
            "configuration.");
    clearOneTimeValues(*this);
}

void mqttConfig::CleanAgentBootstrapConfiguration() {
    MFW_LOG(CORE::kLogDebug,
            "mqttConfig::CleanAgentBootstrapConfiguration(): Cleaning agent bootstrap "
            "configuration.");
    // Whatever way led to stored pairing data, the one-time values must not
    // outlive the pairing they were issued for.
    clearOneTimeValues(*this);
    // The key is in the certificate store now; its text need not stay in memory.
    setPairingSecrets({});
    // The pending identity stays: the paired state is recorded from it next.
}

bool mqttConfig::writeMigrationBootstrap(const std::string& text) {
    const fs::path path = lcmSpecFilePath();
    std::string error;
    if (!platform::paths::createSecureDirectories(path.parent_path(), error)) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::writeMigrationBootstrap(): Failed creating %s file: %s", path.c_str(),
                error.c_str());
        return false;
    }
    // Written beside the target and renamed into place, so that the
    // registration flow never reads (and deletes) a half-written spec; mode
    // 0600, as the LCM spec holds a secret.
    platform::paths::WriteStep failedStep = platform::paths::WriteStep::Write;
    if (!platform::paths::writePrivateFile(path, text, error, &failedStep)) {
        if (failedStep == platform::paths::WriteStep::Create) {
            MFW_LOG(CORE::kLogError,
                    "mqttConfig::writeMigrationBootstrap(): Failed creating %s file: %s",
                    path.c_str(), error.c_str());
        } else {
            MFW_LOG(CORE::kLogError,
                    "mqttConfig::writeMigrationBootstrap(): Failed writing to %s file: %s",
                    path.c_str(), error.c_str());
        }
        return false;
    }
    MFW_LOG(CORE::kLogDebug, "mqttConfig::writeMigrationBootstrap(): Bootstrap written to file %s",
            path.c_str());
    return true;
}

bool mqttConfig::isPendingLCMSpecComplete() {
    struct Required {
        const char* name;
        std::string (mqttConfig::*read)();
    };
    static const Required kRequired[] = {
        {"mqtt_VmId_pend", &mqttConfig::getVmIdPend},
        {"mqtt_ShortTemplateId_pend", &mqttConfig::getShortTemplateIdPend},
        {"mqtt_EdgeId_pend", &mqttConfig::getEdgeIdPend},
        {"mqtt_AgentIdentity_pend", &mqttConfig::getAgentIdentityPend},
        {"mqtt_OtpUrl", &mqttConfig::getOtpUrl},
        {"mqtt_Otp", &mqttConfig::getOtp},
    };
    for (const auto& required : kRequired) {
        if ((this->*required.read)().empty()) {
            MFW_LOG(CORE::kLogVerbose,
                    "mqttConfig::isPendingLCMSpecComplete(): Pending LCM spec value %s is missing.",
                    required.name);
            return false;
        }
    }
    return true;
}

}  // namespace ndpx
