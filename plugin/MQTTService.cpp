#include "plugin/MQTTService.h"

#include "plugin/MQTTServiceOp.h"

#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

std::unique_ptr<CORE::WorkItem> makeOperation(void* context) {
    return std::make_unique<MQTTServiceOp>(static_cast<MQTTService*>(context));
}

}  // namespace

MQTTService::MQTTService(CORE::PropertyBag params) : params_(std::move(params)) {}

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
