#pragma once
// The plug-in's settings: every tunable of the session, the registration
// thread, the certificate monitor, the duplicate filter, the session report
// and the join monitor, with defaults and ranges, read afresh on every use.

#include <mfw/sysconfig.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Json {
class Value;
}  // namespace Json

namespace ndpx {

inline constexpr const char* kProductKey = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane";
inline constexpr const char* kNodeManagerKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
inline constexpr const char* kMonitoringConfigKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick LmMon\\Config\\";
inline constexpr const char* kComposerKey =
    "HKLM\\SOFTWARE\\Brasswick, Inc.\\NimbrelComposer\\ga\\AgentIntegration";
// The agent's own configuration, and its policy copy, which wins.
inline constexpr const char* kAgentConfigurationKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Agent\\Configuration";
inline constexpr const char* kAgentConfigurationPolicyKey =
    "HKLM\\Software\\Policies\\Brasswick, Inc.\\Brasswick Orvane\\Agent\\Configuration";
inline constexpr const char* kFipsModeValue =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\FipsMode";

// Migration states as stored in "mqtt_MigrationStatus".
enum class MigrationStatus : int {
    NotStarted = 0,
    Bootstrap = 1,
    Connected = 2,
    Rollback = 3,
    Commit = 4,
    CommitComplete = 5,
    BootstrapInvalid = 6,
    BootstrapFailed = 7,
    RollbackFailed = 8,
    CommitFailed = 9,
};
const char* migrationStatusName(int state);

// One row of the settings table.
struct SettingDef {
    const wchar_t* name;
    const wchar_t* defaultText;
    int min;
    int max;
};

class mqttConfig : public CORE::sysconfig {
public:
    // Reactions to live changes, registered by the objects that own them.
    struct LiveChangeHandlers {
        std::function<void()> asyncSessionSecondsChanged;  // restart the report generator
        std::function<void(bool)> triggerCertRefresh;
        std::function<void()> triggerCertSwap;
    };

    mqttConfig();
    explicit mqttConfig(std::shared_ptr<ndpx::platform::SettingsStore> store);
    ~mqttConfig() override;

    // The process's configuration: load() creates it on first call and counts
    // users; release() destroys it when the last user is gone.
    static std::shared_ptr<mqttConfig> load();
    static void release();
    static std::shared_ptr<mqttConfig> current();

    // The defaults list, "name=default" in table order.
    static std::vector<std::wstring> defaultsList();
    static std::span<const SettingDef> table();

    int getIntInRange(const std::wstring& name, int min, int max);

    void setLiveChangeHandlers(LiveChangeHandlers handlers);

    bool composerAgentDetected() const { return composerAgentDetected_; }

    // Readers (config/mqttConfigReaders.cpp); the table of defaults and
    // ranges is in config/mqttConfigDefaults.cpp.

    // Integer settings (range-checked).
    int getAsyncSessionSeconds();
    int getCertMonitorIntervalHours();
    int getCertExpiryDays();
    int getCertRefreshTimeout();
    int getCertOtpRepeatInterval();
    int getMaxBufferedMessages();
    int getLWTQoS();
    int getKeepAliveInterval();
    int getReconnectIntervalMin();
    int getReconnectIntervalMax();
    int getSessionExpiryInterval();
    int getMsgRetryInterval();
    int getDuplicateMsgInterval();
    int getDuplicateMsgTimerInterval();  // milliseconds
    int getStartupMinWaitInterval();
    int getStartupMaxWaitInterval();
    int getStartupMinJitter();
    int getStartupMaxJitter();
    int getStartupMaxCachedRetries();
    int getStartupLCMSpecWaitInterval();
    int getStartupFFWaitInterval();
    int getDisconnectTimeout();
    int getMigrationStatus();
    int getAzureADJoinMaxInterval();
    int getAzureADJoinQueryInterval();
    int getEndpointChangeAttempts();
    int getHubRequestTimeout();  // seconds

    // Boolean settings.
    bool getSendWhileDisconnected();
    bool getAllowDisconnectedSendAtAnyTime();
    bool getDeleteOldestMessages();
    bool getAutomaticReconnect();
    bool getCleanStart();
    bool getCertRevocation();
    bool getDeleteLCMSpec();
    bool getSkipDomainJoin();
    bool getIPCServerEnabled();
    bool getMigrationMsgRcvd();
    bool getContinuousPairEnabled();
    bool getTriggerCertRefresh();
    bool getTriggerCertSwap();

    // String settings.
    std::wstring getHttpProxyServer();
    std::wstring getHttpProxyBypass();
    std::wstring getHttpProxyAutoConfigUrl();
    std::wstring getName();
    std::wstring getLWTMessage();
    std::wstring getMsTransport();
    std::vector<std::wstring> getUnwantedFields();
    std::vector<std::wstring> getUnwantedSessionFields();

    // Identity and pairing values, as UTF-8.
    std::string getAgentIdentity();
    std::string getAgentIdentityPend();
    std::string getEdgeId();
    std::string getEdgeIdPend();
    std::string getTemplateId();
    std::string getShortTemplateId();
    std::string getShortTemplateIdPend();
    std::string getVmId();
    std::string getVmIdPend();
    std::string getOtp();
    std::string getOtpUrl();
    std::string getSslCertThumbprint();

    // Derived readers.
    int getCustomizationState();
    bool isCustomizationFinished();
    bool isMigrationActive();
    bool isOtherTransportActive();
    // Process base names allowed on the IPC channel (value name -> data).
    std::map<std::string, std::string> getIpcIncludeList();
    std::string getMonitoringEndpoint();
    // The agent's "XMLAPI\ExternalIPAddress" (a policy value first); empty
    // when neither is set.
    std::string getExternalIPAddress();
    // The agent's listeners: the named values of its "Listeners" key (name
    // -> port, in name order), and the value of that path as a multi-string.
    std::vector<std::pair<std::string, std::string>> getListenerValues();
    std::vector<std::string> getListenerStrings();
    static bool isFipsMode();

    // Writers (config/mqttConfigWriters.cpp): straight to the store, not
    // through the settings list.
    void setEdgeId(const std::string& v);
    void setEdgeIdPend(const std::string& v);
    void setAgentIdentity(const std::string& v);
    void setAgentIdentityPend(const std::string& v);
    void setShortTemplateId(const std::string& v);
    void setShortTemplateIdPend(const std::string& v);
    void setTemplateId(const std::string& v);
    void setVmId(const std::string& v);
    void setVmIdPend(const std::string& v);
    void setOtp(const std::string& v);
    void setOtpUrl(const std::string& v);
    void setPaired(bool paired);
    void setUnwantedFields(const std::vector<std::wstring>& fields);
    void setUnwantedSessionFields(const std::vector<std::wstring>& fields);
    void setMigrationStatus(int state);
    void setMonitoringEndpoint(const std::string& endpoint);

    // The pairing in progress (never stored).
    struct PairingSecrets {
        std::string privateKey;
        std::wstring keyContainer;
        std::string csr;
    };
    void setPairingSecrets(PairingSecrets secrets);
    PairingSecrets pairingSecrets() const;

    // ---------------------------------------------------------------------
    // LCM spec and identity (config/LcmSpec.cpp)
    //
    // The provisioning document (the "LCM spec") arrives as a file, is read
    // once, deleted, and copied into pending identity values that the
    // registration flow promotes once pairing with them succeeds.
    // ---------------------------------------------------------------------

    // Who delivered the LCM spec file: the fast-clone composer (FF), the cloud
    // provisioning (Azure) or a running migration (Corvid).
    enum class LcmSpecSource { FF, Azure, Corvid };
    // The source that applies now: FF when the composer agent was detected,
    // Corvid while a migration runs, Azure otherwise.
    LcmSpecSource lcmSpecSource();
    // The file the LCM spec is looked for in now, by the same rule.
    std::filesystem::path lcmSpecPath();
    // ProgramData/Brasswick/Orvane/LmAgent/lcm-spec.json (composer, migration).
    static std::filesystem::path lcmSpecFilePath();
    // SystemDrive/AzureData/CustomData.bin (cloud provisioning).
    static std::filesystem::path cloudProvisioningFilePath();

    // Finds, reads, deletes (when allowed) and applies the LCM spec file.
    bool ReadLCMSpecFromFile();
    // True when the active identity in the store is complete.
    bool ReadLCMSpecFromRegistry();
    // Parses one spec and writes its values (identity as pending values).
    bool InitLCMSpecFromJSON(const std::string& text);

    // An LCM spec's values, checked but not yet stored.
    struct LcmSpec {
        std::string name;  // may be empty
        std::string shortTemplateId;
        std::string vmId;
        std::string edgeId;
        std::string agentIdentity;
        std::string shortAgentIdentity;
        std::string otpUrl;
        std::string otp;                 // a secret: never logged
        std::string monitoringEndpoint;  // empty when no host is given
        // The proxy settings given, by setting name.
        std::vector<std::pair<const char*, std::string>> proxySettings;
        bool skipDomainJoin = false;
    };
    // Parses and checks one spec, logging as InitLCMSpecFromJSON does, and
    // touches no store (config/LcmSpecParse.cpp). Nothing when the text is no
    // spec or lacks a required value.
    static std::optional<LcmSpec> ParseLCMSpec(std::string_view text);
    // Is the active identity complete (derives a missing edge id first)?
    bool EnsureLCMSpecInRegistry();
    // Derives "mqtt_EdgeId" for installations paired before it existed.
    bool HandleTopicMigration();
    // "host:port" (or the host alone) of the monitoring service from the
    // spec's "edgeGateway" object.
    static bool GetMonitoringBootstrap(const Json::Value& edgeGateway, std::string& endpoint);
    // Removes the LCM spec file unless "mqtt_DeleteLCMSpec" is false.
    void DeleteLCMSpec();
    // Clears the one-time pairing values: "mqtt_Otp", "mqtt_OtpUrl",
    // "mqtt_SslCertThumbprint".
    void CleanLCMPairingConfiguration();
    // Clears what the bootstrap no longer needs once pairing data is stored:
    // the one-time pairing values and the in-memory pairing secrets. Neither
    // the active nor the pending identity is touched (the pending set is
    // promoted after this runs).
    void CleanAgentBootstrapConfiguration();
    // Writes a spec file for a migration, where ReadLCMSpecFromFile finds it.
    bool writeMigrationBootstrap(const std::string& text);

    // True when a spec has left everything needed to pair in the store: the
    // four pending identity values, "mqtt_OtpUrl" and "mqtt_Otp".
    bool isPendingLCMSpecComplete();

    // agent identity = edge id + short template id + "_" + vm id
    static std::string makeAgentIdentity(const std::string& edgeId,
                                         const std::string& shortTemplateId,
                                         const std::string& vmId);
    // short agent identity = short template id + "_" + vm id
    static std::string makeShortAgentIdentity(const std::string& shortTemplateId,
                                              const std::string& vmId);
    std::string getShortAgentIdentity();

    // A move to new IDs (config/IdentityMove.cpp). The new identity waits in
    // the pending set until a client certificate names it.
    // An edge or template ID fit for a topic level and a common name.
    static bool isUsableId(const std::string& id);
    // The pending identity while a move runs: set, and not the active one.
    std::optional<std::string> movingToIdentity();
    // The identity the next client certificate must name.
    std::string certificateIdentity();
    // Writes the pending set for the new IDs and this machine; the new
    // identity.
    std::string beginIdentityMove(const std::string& edgeId, const std::string& shortTemplateId);
    // The pending set becomes the active one again: no move runs.
    void cancelIdentityMove();
    // The pending set becomes the active one (after pairing, or once a
    // certificate for the new identity is current).
    void activatePendingIdentity();

protected:
    void changed(const std::wstring& name, const std::wstring& value) override;

private:
    int readInt(const wchar_t* name);
    std::string readNarrow(const wchar_t* name);
    std::vector<std::wstring> readList(const wchar_t* name);
    bool writeString(const char* name, const std::string& value);

    bool composerAgentDetected_ = false;
    std::mutex handlersMutex_;
    LiveChangeHandlers handlers_;
    mutable std::mutex secretsMutex_;
    PairingSecrets secrets_;
};

// Splits at every "," (an empty text gives an empty list).
std::vector<std::wstring> splitList(const std::wstring& text);
// Joins with ","; a separator is put only after non-empty text.
std::wstring joinList(const std::vector<std::wstring>& items);

}  // namespace ndpx
