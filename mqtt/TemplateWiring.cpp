// The manager as the template handler's host: status publications, the
// reboot request and the desktop's new IDs.

#include "config/mqttConfig.h"
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
    if (!mqttConfig::isUsableId(edgeId) || !mqttConfig::isUsableId(shortTemplateId)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::UpdateIDs(): IDs must be 1 to 32 printable characters without "
                "blanks, '/', '+' or '#'; the IDs are unchanged");
        return;
    }
    auto cfg = config();
    std::string identity;
    {
        // The certificate monitor reads the pending set under this lock when
        // it swaps.
        CORE::MutexLock lock(registration_.mutex());
        if (cfg->getAgentIdentity().empty() || cfg->getVmId().empty()) {
            lock.unlock();
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::UpdateIDs(): The desktop is not paired; the IDs are unchanged");
            return;
        }
        if (mqttConfig::makeAgentIdentity(edgeId, shortTemplateId, cfg->getVmId()) ==
            cfg->getAgentIdentity()) {
            const bool wasMoving = cfg->movingToIdentity().has_value();
            cfg->cancelIdentityMove();
            lock.unlock();
            MFW_LOG(CORE::kLogInfo, "MqttManager::UpdateIDs(): The IDs are the current ones%s",
                    wasMoving ? "; the move to other IDs is called off" : "");
            return;
        }
        identity = cfg->beginIdentityMove(edgeId, shortTemplateId);
    }
    // The client certificate must name the identity the IDs make up: the
    // new IDs take effect with a certificate for it, obtained through the
    // renewal path. Until then the desktop keeps its identity and topics; a
    // restart meanwhile takes the move up again.
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::UpdateIDs(): Moving to agent identity %s once a certificate names it",
            identity.c_str());
    certMonitor_->IdentityMoved();
}

}  // namespace ndpx
