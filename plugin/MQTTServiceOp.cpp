#include "plugin/MQTTServiceOp.h"

#include "migration/MigrationManager.h"
#include "mqtt/MqttManager.h"
#include "plugin/MQTTService.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

namespace ndpx {

void requestUnload() {
    CORE::PropertyBag bag;
    bag.set(L"FileName", L"ndpx_mqtt");
    CORE::MessageHandler::PostMsg(L"System", L"UnloadPlugin", bag);
}

MQTTServiceOp::MQTTServiceOp(MQTTService* service) : service_(service) {
    service_->addRef();
}

MQTTServiceOp::~MQTTServiceOp() {
    service_->release();
}

bool MQTTServiceOp::handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                                  CORE::PropertyBag& response) {
    MFW_LOG(CORE::kLogVerbose, "%s: %s", "MQTTServiceOp", CORE::toUtf8(operation).c_str());
    if (!startHook(operation, request, response)) {
        return false;
    }
    const bool result = dispatch(operation, request, response);
    endHook(operation, request, response);
    return result;
}

bool MQTTServiceOp::dispatch(const std::wstring& operation, CORE::PropertyBag& request,
                             CORE::PropertyBag& response) {
    MqttManager& manager = MqttManager::GetInstance();
    // Compared in this order, without regard to case; the first match wins.
    if (CORE::iequals(operation, L"PublishAsyncNotification")) {
        manager.SendSessionReport(request);
        return true;
    }
    if (CORE::iequals(operation, L"PublishSessionMessage")) {
        manager.PublishSessionMessage(request);
        return true;
    }
    if (CORE::iequals(operation, L"ShutdownNotify")) {
        requestUnload();
        return true;
    }
    if (CORE::iequals(operation, L"PublishTopicMessage")) {
        manager.PublishDesktopNotification(request);
        return true;
    }
    if (CORE::iequals(operation, L"MigrateToCorvid")) {
        return service_->migration().ProcessMigrationMessage(request, response) == 1;
    }
    if (CORE::iequals(operation, L"SendEvent")) {
        manager.PublishEvent(request);
        return true;
    }
    if (CORE::iequals(operation, L"UpdateMqttEndpoints")) {
        return manager.UpdateEndpointURL(request, response);
    }
    if (CORE::iequals(operation, L"GetEndpointProperties")) {
        return manager.GetEndpointProperties(request, response);
    }
    MFW_LOG(CORE::kLogVerbose, "Service operation: %s NOT IMPLEMENTED",
            CORE::toUtf8(operation).c_str());
    setReplyError(response, CORE::kErrorNotImplemented);
    return false;
}

}  // namespace ndpx
