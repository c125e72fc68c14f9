// The desktop's move to new IDs: the new identity waits in the pending set
// until a certificate names it, then both become current together.

#include "config/mqttConfig.h"

namespace ndpx {

bool mqttConfig::isUsableId(const std::string& id) {
    // One topic level and part of a certificate's common name (64 at most).
    if (id.empty() || id.size() > 32) {
        return false;
    }
    for (const char c : id) {
        if (c <= ' ' || c > '~' || c == '/' || c == '+' || c == '#') {
            return false;
        }
    }
    return true;
}

std::optional<std::string> mqttConfig::movingToIdentity() {
    const std::string active = getAgentIdentity();
    const std::string pending = getAgentIdentityPend();
    if (active.empty() || pending.empty() || pending == active) {
        return std::nullopt;
    }
    return pending;
}

std::string mqttConfig::certificateIdentity() {
    return movingToIdentity().value_or(getAgentIdentity());
}

std::string mqttConfig::beginIdentityMove(const std::string& edgeId,
                                          const std::string& shortTemplateId) {
    const std::string vmId = getVmId();
    std::string identity = makeAgentIdentity(edgeId, shortTemplateId, vmId);
    setEdgeIdPend(edgeId);
    setShortTemplateIdPend(shortTemplateId);
    setVmIdPend(vmId);
    // Written last: a move begins only once its whole set is there.
    setAgentIdentityPend(identity);
    return identity;
}

void mqttConfig::cancelIdentityMove() {
    setEdgeIdPend(getEdgeId());
    setShortTemplateIdPend(getShortTemplateId());
    setVmIdPend(getVmId());
    setAgentIdentityPend(getAgentIdentity());
}

void mqttConfig::activatePendingIdentity() {
    const std::string vmId = getVmIdPend();
    const std::string shortTemplateId = getShortTemplateIdPend();
    setVmId(vmId);
    setShortTemplateId(shortTemplateId);
    setEdgeId(getEdgeIdPend());
    writeString("mqtt_ShortAgentIdentity", makeShortAgentIdentity(shortTemplateId, vmId));
    // Written last, as the set is only whole with it.
    setAgentIdentity(getAgentIdentityPend());
}

}  // namespace ndpx
