#include "IdentityMove.h"

#include "Provision.h"
#include "Renewal.h"

#include <json/json.h>

#include <stdexcept>

namespace ndpx::devcloud {

std::string setIdMessage(const std::string& edgeId, const std::string& shortTemplateId) {
    Json::Value v(Json::objectValue);
    v["msgType"] = "SET_ID";
    v["edgeId"] = edgeId;
    v["templateId"] = shortTemplateId;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, v);
}

OtpGrant orderMove(const std::filesystem::path& dir, const std::string& desktopId,
                   const std::string& edgeId, const std::string& shortTemplateId,
                   const std::string& bootstrapTopic) {
    OtpStore store(dir);
    const auto pairing =
        store.lastRedeemed([&](const OtpGrant& g) { return desktopNames(desktopId, g); });
    if (!pairing) {
        throw std::runtime_error("devcloud: no pairing of desktop " + desktopId + " on record in " +
                                 store.file().string());
    }
    OtpGrant to;
    to.vmId = pairing->vmId;
    to.agentIdentity = agentIdentity(edgeId, shortTemplateId, pairing->vmId);
    to.bootstrapTopic =
        bootstrapTopic.empty() ? "desktop/bootstrap/" + to.agentIdentity : bootstrapTopic;
    store.recordMove(pairing->agentIdentity, to);
    return to;
}

}  // namespace ndpx::devcloud
