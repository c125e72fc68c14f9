#include "plugin/MQTTService.h"

#include "certs/CertificateUtil.h"
#include "migration/MigrationManager.h"
#include "mqtt/MqttManager.h"
#include "plugin/MQTTServiceOp.h"

#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

std::unique_ptr<CORE::WorkItem> makeOperation(void* context) {
    return std::make_unique<MQTTServiceOp>(static_cast<MQTTService*>(context));
}

// The migration's view of the session. The manager is looked up at each
// call: it is the process's singleton, released only after this worker.
class ManagerSession : public migration::MigrationSession {
public:
    bool Start() override { return MqttManager::GetInstance().Start(); }
    bool Stop() override { return MqttManager::GetInstance().Stop(); }
    bool IsStarted() override { return MqttManager::GetInstance().IsStarted(); }
    bool IsConnected() override { return MqttManager::GetInstance().IsConnected(); }
    void BootstrapWritten() override { MqttManager::GetInstance().WakeRegistration(); }
    bool RegisterMessageTransport() override {
        return MqttManager::GetInstance().CommitMessageTransport();
    }
    void RevertToRequireBootstrap() override {
        MqttManager::GetInstance().RevertToRequireBootstrap(true, "the migration was rolled back");
    }
};

}  // namespace

MQTTService::MQTTService(CORE::PropertyBag params)
    : params_(std::move(params)),
      session_(std::make_unique<ManagerSession>()),
      migration_(std::make_unique<migration::MigrationManager>(
          *session_, [] { return MqttManager::GetInstance().config(); },
          std::make_shared<certs::CertificateUtil>())) {}

MQTTService::~MQTTService() = default;

bool MQTTService::start() {
    MFW_LOG(CORE::kLogDebug, "MQTTService::start(): setup %s queue", "MQTT");
    try {
        CORE::MessageFrameWork::System().AddWorkerEx(
            &makeOperation, this, L"MQTT", L"Receives agent change notifications", 0, nullptr);
        name_ = L"MQTT";
        registered_ = true;
    } catch (const CORE::coreException& e) {
        MFW_LOG(CORE::kLogError, "MQTTService::start(): %s", e.what());
        registered_ = false;
    }
    return registered_;
}

void MQTTService::stop() {
    MFW_LOG(CORE::kLogDebug, "MQTTService::stop(): Unregistering with %s queue", "DesktopManager");
    CORE::PropertyBag request;
    request.set(L"QUEUE", L"MQTT");
    CORE::PropertyBag response;
    CORE::MessageHandler::SendMsg(L"DesktopManager", L"NotifyQueueRemove", request, response,
                                  CORE::kInfinite);
    if (registered_) {
        CORE::MessageFrameWork::System().RemoveWorker(name_, 0);
        registered_ = false;
    }
    stopping_ = true;
    stopEvent_.set();
}

}  // namespace ndpx
