// The manager as the template handler's host: status publications, the
// reboot request and the desktop's new IDs.

#include "mqtt/MqttManager.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/moduleLog.h>

namespace ndpx {

void MqttManager::publishTemplateStatus(const std::string& status, int detailKind,
                                        const std::string& detail) {
    PublishDesktopStatus(status, 2, detailKind, detail);
}

void MqttManager::requestSystemReboot() {
    // The registration thread stops before its next step: the machine is
    // about to restart.
    registration_.requestReboot();
    CORE::PropertyBag request;
    request.set(L"Reason", L"domain join");
    CORE::PropertyBag response;
    const int rc = CORE::MessageHandler::SendMsg(L"System", L"RequestSystemReboot", request,
                                                 response, 60000, shutdownEvent_);
    if (rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::RequestSystemReboot(): The host did not take the reboot request, "
                "error %d",
                rc);
    }
}

void MqttManager::updateIDs(const std::string& edgeId, const std::string& shortTemplateId) {
    // The client certificate names the agent identity, which the IDs make
    // up: new IDs need a certificate for the new identity first.
    MFW_LOG(CORE::kLogWarning,
            "MqttManager::UpdateIDs(): Moving to edge %s and template %s needs a certificate for "
            "the new identity, which this agent cannot obtain yet; the IDs are unchanged",
            edgeId.c_str(), shortTemplateId.c_str());
}

}  // namespace ndpx
