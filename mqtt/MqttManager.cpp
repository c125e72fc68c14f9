// The manager's lifecycle: construction, state, start and stop, root folder.

#include "mqtt/MqttManager.h"

#include "certs/pairingConfig.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <MQTTAsync.h>

namespace ndpx {
namespace {
std::once_flag g_mqttLibraryInit;
}

MqttManager& MqttManager::GetInstance() {
    static MqttManager instance(defaultDependencies());
    return instance;
}

MqttManager::MqttManager(MqttManagerDependencies deps)
    : deps_(std::move(deps)),
      shutdownEvent_(CORE::coreevent::Reset::Manual, false, *deps_.time),
      metrics_([this] { return GetStateName(); }),
      disconnectEvent_(CORE::coreevent::Reset::Manual, false, *deps_.time) {
    if (!deps_.clientFactory) {
        deps_.clientFactory = pahoClientFactory();
    }
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
    healingThread_.join();
    tearDownThread_.join();
    executor_.stop();
    std::unique_lock lock(clientLock_);
    client_.reset();
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
    subscribedMask_ = 0;
    {
        std::lock_guard lock(topicsLock_);
        subscribeTopics_ = {};
        pendingTopics_ = {};
        publishTopics_ = {};
    }
    {
        std::lock_guard lock(pendingLock_);
        pendingCommands_.clear();
    }
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
    fileWaiter_.reset();
    registrationCompleted_ = false;
    transportRegistered_ = false;
    activeRetries_ = 0;
    pendingRetries_ = 0;
    metrics_.load();
    executor_.start();
    if (deps_.runRegistrationThread) {
        StartAgentRegistrationThread();
    }

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
    fileWaiter_.interrupt();

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
    // The client is gone: no callback can post more work. Finish what is queued.
    executor_.stop();
    // No completion of a command may run once the module is told to go.
    CORE::MessageFrameWork::System().CancelAsyncCompletions(this);

    MFW_LOG(CORE::kLogInfo, "MqttManager::Stop(): MQTT Stop successful.");
    started_ = false;
    return true;
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

}  // namespace ndpx
