// Template messages that change the desktop's settings: its IDs and its
// time zone.

#include "TemplateMembers.h"
#include "templates/TemplateHandler.h"

#include <mfw/moduleLog.h>

#include <string_view>

namespace ndpx {

void TemplateHandler::UpdateIDs(const Json::Value& message) {
    const std::string edgeId = templateString(message, "edgeId");
    const std::string templateId = templateString(message, "templateId");
    if (edgeId.empty() || templateId.empty()) {
        MFW_LOG(CORE::kLogError,
                "TemplateHandler::UpdateIDs(): Unable to update IDs. edegeId: %s. "
                "shortTemplateId: %s",
                edgeId.c_str(), templateId.c_str());
        return;
    }
    MFW_LOG(CORE::kLogDebug,
            "TemplateHandler::UpdateIDs(): Updating IDs. edgeId: %s. shortTemplateId: %s",
            edgeId.c_str(), templateId.c_str());
    host_.updateIDs(edgeId, templateId);
}

void TemplateHandler::UpdateTimeZone(const Json::Value& message) {
    static constexpr std::string_view kZone = "vmTimeZone";
    const Json::Value* zone = message.find(kZone.data(), kZone.data() + kZone.size());
    if (zone == nullptr || !zone->isObject()) {
        MFW_LOG(CORE::kLogInfo,
                "TemplateHandler::UpdateTimeZone(): Message do not have the timezone "
                "information.");
        return;
    }
    MFW_LOG(CORE::kLogInfo,
            "TemplateHandler::UpdateTimeZone(): Trying to set the timezone of machine.");
    const std::string name = templateString(*zone, "timeZone");
    const std::string offset = templateString(*zone, "timeZoneOffset");
    if (!backends_.timeZone->SetTimeZone(name, templateBool(*zone, "dayLightDisabled", false),
                                         offset)) {
        publish("SET_TIMEZONE_FAILED", 1,
                "Unable to set timezone to : " + (name.empty() ? offset : name));
    }
}

}  // namespace ndpx
