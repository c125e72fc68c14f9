#include "mqtt/MqttManager.h"

#include "config/MqttManagerUtil.h"
#include "config/RedactWriter.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>
#include <platform/Paths.h>

#include <MQTTAsync.h>

#include <climits>

namespace ndpx {
namespace {

std::once_flag g_mqttLibraryInit;
std::atomic<std::uint32_t> g_statusSequence{0};

constexpr const char* kAgentVersionsKey = "HKLM\\Software\\Brasswick, Inc.\\AgentVersions";

// A registry key and its subkeys as a PropertyBag.
CORE::PropertyBag readKeyAsBag(platform::SettingsStore& store, const std::string& key) {
    CORE::PropertyBag bag;
    for (const auto& [name, value] : store.listValues(key)) {
        bag.add(CORE::toWide(name), CORE::toWide(value.asText()));
    }
    for (const auto& sub : store.listSubkeys(key)) {
        bag.addBag(CORE::toWide(sub), readKeyAsBag(store, key + "\\" + sub));
    }
    return bag;
}

}  // namespace

MqttManager& MqttManager::GetInstance() {
    static MqttManager instance;
    return instance;
}

MqttManager::MqttManager(MqttManagerDependencies deps)
    : deps_(std::move(deps)),
      shutdownEvent_(CORE::coreevent::Reset::Manual, false, *deps_.time),
      metrics_([this] { return GetStateName(); }) {
    // The filter's settings are read once, when the manager is built.
    auto cfg = config();
    duplicates_ = std::make_unique<DuplicateMessageHandler>(
        cfg->getDuplicateMsgInterval(),
        static_cast<std::uint32_t>(cfg->getDuplicateMsgTimerInterval()), *deps_.time);
    metrics_.load();
}

MqttManager::~MqttManager() {
    // Threads must not outlive the object; Stop is normally called before.
    shutdownEvent_.set();
    registrationThread_.join();
}

std::shared_ptr<mqttConfig> MqttManager::config() const {
    std::shared_ptr<mqttConfig> cfg = deps_.config ? deps_.config() : mqttConfig::current();
    if (!cfg) {
        // Used outside an install (e.g. stopped before ever starting): a
        // transient view of the same settings.
        cfg = std::make_shared<mqttConfig>();
    }
    return cfg;
}

void MqttManager::SetState(std::int32_t state) {
    bool changed = false;
    {
        std::lock_guard lock(stateLock_);
        if (state_ != state) {
            state_ = state;
            changed = true;
        }
    }
    if (changed) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::SetState(): State: %s", GetStateName().c_str());
    }
}

std::int32_t MqttManager::GetState() const {
    std::lock_guard lock(stateLock_);
    return state_;
}

std::string MqttManager::GetStateName() const {
    return mqttStateName(GetState());
}

void MqttManager::ResetRunData() {
    pairedFlag_ = false;
    needIdFlag_ = false;
    pairedStateKnown_ = false;
    desktopStatusTopic_.clear();
    std::lock_guard lock(stateLock_);
    // Deliberately silent: the state reads UNKNOWN right after INITIALIZING.
    state_ = MQTT_STATE_UNKNOWN;
}

bool MqttManager::Start() {
    if (started_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Start(): Already started");
        return true;
    }
    SetState(MQTT_STATE_INITIALIZING);
    ResetRunData();

    std::call_once(g_mqttLibraryInit, [] {
        MQTTAsync_init_options init = MQTTAsync_init_options_initializer;
        init.do_openssl_init = 0;  // the module sets up the TLS library itself
        MQTTAsync_global_init(&init);
    });

    shutdownEvent_.reset();
    metrics_.load();
    StartAgentRegistrationThread();

    MFW_LOG(CORE::kLogInfo, "MqttManager::Start(): MQTT Start successful.");
    started_ = true;
    return true;
}

void MqttManager::StartAgentRegistrationThread() {
    std::lock_guard lock(registrationStartLock_);
    if (registrationThread_.joinable()) {
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::StartAgentRegistrationThread(): Registration thread has already "
                "started.");
        return;
    }
    if (!registrationThread_.start("MqttRegistration", [this] { RegistrationThreadProc(); })) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "registration thread");
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::StartAgentRegistrationThread(): Asked to start the Registration "
            "thread.");
}

bool MqttManager::Stop() {
    SetState(MQTT_STATE_STOPPING);

    PublishDesktopStatus("UNAVAILABLE", 0);
    shutdownEvent_.set();

    {
        std::lock_guard lock(registrationStartLock_);
        if (registrationThread_.joinable()) {
            if (registrationThread_.isCurrentThread()) {
                throw std::system_error(
                    std::make_error_code(std::errc::resource_deadlock_would_occur),
                    "Stop on the registration thread");
            }
            registrationThread_.join();
        }
    }

    StopHealingThread();
    duplicates_->Clear();
    StopTearDownThread();
    TearDownConnection();
    // No completion of a command may run once the module is told to go.
    CORE::MessageFrameWork::System().CancelAsyncCompletions(this);

    MFW_LOG(CORE::kLogInfo, "MqttManager::Stop(): MQTT Stop successful.");
    started_ = false;
    return true;
}

void MqttManager::StopHealingThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopHealingThread(): Stopping the healing thread.");
    std::lock_guard lock(healingLock_);
}

void MqttManager::StopTearDownThread() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::StopTearDownThread(): Stopping the tear down thread.");
    std::lock_guard lock(tearDownLock_);
}

bool MqttManager::Disconnect(std::uint32_t /*timeoutMs*/) {
    if (!client_ || !client_->isConnected()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Not connected, unable to disconnect");
        return true;
    }
    return true;
}

void MqttManager::TearDownConnection() {
    std::unique_lock lock(clientLock_);
    const int timeoutSeconds = config()->getDisconnectTimeout();
    if (!Disconnect(static_cast<std::uint32_t>(timeoutSeconds) * 1000u)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::TearDownConnection(): Failed to disconnect from the MQTT Server.");
    }
    client_.reset();
}

int MqttManager::RetrieveRootFolderPath(std::string& path) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::RetrieveRootFolderPath(): Retrieving root folder path.");
    const auto programData = platform::paths::programData();
    if (programData.empty()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::RetrieveRootFolderPath(): Failed to obtain program data directory. "
                "Error: 0x%x",
                0x80070002u);
        return 0;
    }
    const auto root = programData / "Brasswick" / "Orvane" / "LmAgent";
    std::string error;
    if (!platform::paths::createSecureDirectories(root, error)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::RetrieveRootFolderPath(): Failed to create root folder.");
        return 0;
    }
    path = root.string();
    MFW_LOG(CORE::kLogDebug, "MqttManager::RetrieveRootFolderPath(): Root folder is %s",
            path.c_str());
    return 1;
}

bool MqttManager::DoPublishMessage(const std::string& topic, const std::string& payload, int& token,
                                   int qos, bool retained) {
    if (shutdownEvent_.isSet()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::DoPublishMessage(): Not publishing message, stopping");
        return false;
    }
    if (!pairedStateKnown_) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::DoPublishMessage(): Not publishing message, paired state is "
                "undetermined");
        return false;
    }
    if (topic.empty()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::DoPublishMessage(): Message topic is empty, unable to publish msg");
        return false;
    }
    if (payload.size() > static_cast<std::size_t>(INT32_MAX)) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Message too large to publish for topic %s",
                topic.c_str());
        return false;
    }
    std::shared_lock lock(clientLock_);
    if (!client_) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Unable to send message. MQTT client doesn't "
                "exist");
        return false;
    }
    const int rc = client_->publish(topic, payload, qos, retained, token);
    if (rc != 0) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Failed to send message on topic %s. Error: %d",
                topic.c_str(), rc);
        return false;
    }
    return true;
}

bool MqttManager::PublishMessage(const std::string& topic, const Json::Value& json, bool reliable) {
    int token = 0;
    const std::string text = MqttManagerUtil::writeCompact(json);
    if (!DoPublishMessage(topic, text, token, reliable ? 2 : 0, false)) {
        return false;
    }
    if (CORE::isLoggingAtLevel(CORE::kLogInfo)) {
        const std::string redacted = RedactWriter::write(json);
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::PublishMessage(): Published message (%d) to topic %s: %s", token,
                topic.c_str(), redacted.c_str());
    }
    return true;
}

void MqttManager::BuildStatusMessage(Json::Value& out, const std::string& status, int detailKind,
                                     const std::string& detail) {
    const std::uint32_t seq = g_statusSequence.fetch_add(1);
    out = Json::Value(Json::objectValue);
    out["status"] = status;
    if (detailKind == 1 && !detail.empty()) {
        out["errMsg"] = detail;
    }
    if (status == "AVAILABLE") {
        out["publicKey"] = publicKey_;
        out["agentVersions"] =
            MqttManagerUtil::BagToJSON(readKeyAsBag(config()->store(), kAgentVersionsKey));
        if (detailKind == 2 && !detail.empty()) {
            out["deviceId"] = detail;
        }
    }
    out["seqno"] = Json::UInt(seq);
    out["guid"] = connectionGuid_;
}

bool MqttManager::PublishDesktopStatus(const std::string& status, int qos) {
    Json::Value message;
    BuildStatusMessage(message, status, 0, {});
    int token = 0;
    return DoPublishMessage(desktopStatusTopic_, MqttManagerUtil::writeCompact(message), token, qos,
                            false);
}

}  // namespace ndpx
