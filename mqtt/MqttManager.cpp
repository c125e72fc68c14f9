// The manager's lifecycle: construction, state, start and stop, root folder.

#include "mqtt/MqttManager.h"

#include "certs/CertificateUtil.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>

namespace ndpx {
namespace {

// The process's manager: made on first use, destroyed by ReleaseInstance.
CORE::Mutex g_instanceLock;
std::unique_ptr<MqttManager> g_instance MFW_GUARDED_BY(g_instanceLock);

}  // namespace

MqttManager& MqttManager::GetInstance() {
    CORE::MutexLock lock(g_instanceLock);
    if (!g_instance) {
        g_instance = std::make_unique<MqttManager>(defaultDependencies());
    }
    return *g_instance;
}

void MqttManager::ReleaseInstance() {
    std::unique_ptr<MqttManager> released;
    {
        CORE::MutexLock lock(g_instanceLock);
        released = std::move(g_instance);
    }
    // Destroyed outside the lock: its destructor joins threads.
}

MqttManager::MqttManager(MqttManagerDependencies deps)
    : deps_(std::move(deps)),
      certificates_(deps_.certificates ? deps_.certificates
                                       : std::make_shared<certs::CertificateUtil>()),
      shutdownEvent_(CORE::coreevent::Reset::Manual, false, *deps_.time),
      metrics_([this] { return GetStateName(); }, [this] { return metricDetails(); }),
      connection_(
          deps_.clientFactory ? deps_.clientFactory : pahoClientFactory(), *this,
          [this](std::function<void()> work) { return executor_.post(std::move(work)); },
          *deps_.time),
      registration_(*this, certificates_, deps_.credentials),
      reports_(std::make_unique<AsyncReportGenerator>([this] { return config(); }, *deps_.time)),
      certMonitor_(std::make_unique<certs::CertMonitor>(
          static_cast<certs::CertMonitorHost&>(*this), [this] { return config(); }, certificates_,
          *deps_.time)),
      templates_(std::make_unique<TemplateHandler>(
          static_cast<TemplateHost&>(*this), [this] { return config(); },
          std::move(deps_.templateBackends), *deps_.time)),
      ipc_(std::make_unique<IPCManager>(
          IPCManager::Dependencies{[this] { return config(); },
                                   deps_.ipcTransport ? deps_.ipcTransport : defaultIpcTransport(),
                                   {}})) {
    // The filter's settings are read once, when the manager is built.
    auto cfg = config();
    duplicates_ = std::make_unique<DuplicateMessageHandler>(
        cfg->getDuplicateMsgInterval(),
        static_cast<std::uint32_t>(cfg->getDuplicateMsgTimerInterval()), *deps_.time);
    answered_ = std::make_unique<AnsweredCommandLog>(cfg->getDuplicateMsgInterval(), *deps_.time);
    metrics_.load();
}

MqttManager::~MqttManager() {
    // Threads must not outlive the object; Stop is normally called before.
    metrics_.unload();
    shutdownEvent_.set();
    ipc_->Stop();
    reports_->Close();
    templates_->Stop();
    certMonitor_->Stop();
    registration_.interrupt();
    std::unique_ptr<CORE::corethread> registration;
    {
        CORE::MutexLock lock(registrationThreadLock_);
        registration = std::move(registrationThread_);
    }
    registration.reset();
    healing_.StopHealingThread();
    healing_.StopTearDownThread();
    connection_.tearDown(0);
    executor_.stop();
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
    changeState(state, false);
}

void MqttManager::setRunState(std::int32_t state) {
    changeState(state, true);
}

void MqttManager::changeState(std::int32_t state, bool unlessStopping) {
    bool changed = false;
    {
        CORE::MutexLock lock(stateLock_);
        // Read under the lock that Stop's own state change takes, so that a
        // late writer cannot overwrite STOPPING.
        if (unlessStopping && stopRequested_) {
            return;
        }
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
    CORE::MutexLock lock(stateLock_);
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
        CORE::MutexLock lock(topicsLock_);
        subscribeTopics_ = {};
        pendingTopics_ = {};
        publishTopics_ = {};
    }
    {
        CORE::MutexLock lock(pendingLock_);
        pendingCommands_.clear();
    }
    registration_.resetRunData();
    CORE::MutexLock lock(stateLock_);
    // Deliberately silent: the state reads UNKNOWN right after INITIALIZING.
    state_ = MQTT_STATE_UNKNOWN;
}

bool MqttManager::Start() {
    if (started_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Start(): Already started");
        return true;
    }
    SetState(MQTT_STATE_INITIALIZING);
    stopRequested_ = false;
    ResetRunData();
    initMqttClientLibrary();

    shutdownEvent_.reset();
    healing_.reopen();
    // A swap a crash interrupted: certificate and pairing values agree again
    // before anything reads them.
    certMonitor_->RepairInterruptedSwap();
    reports_->Open();
    config()->setLiveChangeHandlers(
        {.asyncSessionSecondsChanged = [this] { reports_->Restart(); },
         .triggerCertRefresh = [this](bool forced) { certMonitor_->TriggerRefresh(forced); },
         .triggerCertSwap = [this] { certMonitor_->TriggerRefreshAndSwap(); }});
    metrics_.load();
    executor_.start();
    templates_->Start();
    if (deps_.runRegistrationThread) {
        StartAgentRegistrationThread();
    }

    MFW_LOG(CORE::kLogInfo, "MqttManager::Start(): MQTT Start successful.");
    started_ = true;
    return true;
}

void MqttManager::StartAgentRegistrationThread() {
    CORE::MutexLock lock(registrationThreadLock_);
    if (registrationThread_ && registrationThread_->joinable()) {
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::StartAgentRegistrationThread(): Registration thread has already "
                "started.");
        return;
    }
    auto thread = std::make_unique<CORE::corethread>();
    if (!thread->start("MqttRegistration", [this] { registration_.RegistrationThreadProc(); })) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "registration thread");
    }
    registrationThread_ = std::move(thread);
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::StartAgentRegistrationThread(): Asked to start the Registration "
            "thread.");
}

bool MqttManager::Stop() {
    stopRequested_ = true;
    SetState(MQTT_STATE_STOPPING);
    // Local clients go first: nothing of theirs is published after this.
    ipc_->Stop();

    PublishDesktopStatus("UNAVAILABLE", 0);
    // Ends every wait of the registration thread, the executor's host
    // messages and a credential request in flight.
    shutdownEvent_.set();
    registration_.interrupt();

    std::unique_ptr<CORE::corethread> registration;
    {
        CORE::MutexLock lock(registrationThreadLock_);
        registration = std::move(registrationThread_);
    }
    if (registration) {
        if (registration->isCurrentThread()) {
            throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                    "Stop on the registration thread");
        }
        registration->join();
    }

    healing_.StopHealingThread();
    // Closed, not just stopped: a subscription or settings change still
    // under way must not start it again.
    reports_->Close();
    templates_->Stop();  // the restart monitor, then the Azure AD monitor
    certMonitor_->Stop();
    config()->setLiveChangeHandlers({});
    duplicates_->Clear();
    answeredLoaded_ = false;  // the next Start reads them again
    healing_.StopTearDownThread();
    TearDownConnection();
    // The client is gone: no callback can queue more work. Finish what is queued.
    executor_.stop();
    // After the executor: its connection events write the same marker, and
    // its socket scan (no-delay) must not meet a file opened meanwhile.
    session_.disconnected(true);
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

int MqttManager::sendToDesktopManager(const wchar_t* operation, const CORE::PropertyBag& request) {
    CORE::PropertyBag response;
    // A stopping manager does not sit out the worker's time-out.
    return CORE::MessageHandler::SendMsg(L"DesktopManager", operation, request, response, 60000,
                                         shutdownEvent_);
}

bool MqttManager::RegisterMessageTransport() {
    return registration_.RegisterMessageTransport(false);
}

bool MqttManager::CommitMessageTransport() {
    CORE::MutexLock lock(registration_.mutex());
    return registration_.RegisterMessageTransport(true);
}

void MqttManager::RevertToRequireBootstrap(bool forgetPairingData, const std::string& reason) {
    registration_.revertToRequireBootstrap(forgetPairingData, reason);
}

void MqttManager::UpdateIDs() {
    registration_.UpdateIDs();
}

}  // namespace ndpx
