#include "config/JsonUtil.h"

#include "config/Redaction.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <cstring>

namespace ndpx::JsonUtil {

namespace {

// The member `name` of an object, or nullptr. Callers have checked isObject().
const Json::Value* findMember(const Json::Value& json, const char* name) {
    return json.find(name, name + std::strlen(name));
}

}  // namespace

bool GetStringProperty(const Json::Value& json, const char* name, std::string& out) {
    out.clear();
    if (name == nullptr || !json.isObject()) {
        return false;
    }
    const Json::Value* member = findMember(json, name);
    if (member == nullptr) {
        MFW_LOG(1, "JsonUtil::GetStringProperty(): Could not find %s property in JSON", name);
        return false;
    }
    // Scalars read as the JSON library renders them; an object or an array
    // has no text form.
    if (member->isObject() || member->isArray()) {
        MFW_LOG(1, "JsonUtil::GetStringProperty(): Property %s is not a string", name);
        return false;
    }
    std::string text = member->asString();
    if (text.empty()) {
        MFW_LOG(1, "JsonUtil::GetStringProperty(): Property %s empty in JSON", name);
        return false;
    }
    out = std::move(text);
    logRedacted(name, out);
    return true;
}

bool GetBooleanProperty(const Json::Value& json, const char* name, bool& out) {
    out = false;
    if (name == nullptr || !json.isObject()) {
        return false;
    }
    const Json::Value* member = findMember(json, name);
    if (member == nullptr) {
        MFW_LOG(1, "JsonUtil::GetBooleanProperty(): Could not find %s boolean property in JSON",
                name);
        return false;
    }
    if (!member->isBool()) {
        MFW_LOG(1, "JsonUtil::GetBooleanProperty(): Property %s is not a boolean", name);
        return false;
    }
    out = member->asBool();
    logRedacted(name, out ? "true" : "false");
    return true;
}

bool GetArrayProperty(const Json::Value& json, const char* name, std::vector<std::wstring>& out) {
    out.clear();
    if (name == nullptr || !json.isObject()) {
        return false;
    }
    const Json::Value* member = findMember(json, name);
    if (member == nullptr) {
        MFW_LOG(1, "JsonUtil::GetArrayProperty(): Could not find %s array property in JSON", name);
        return false;
    }
    if (!member->isArray()) {
        MFW_LOG(1, "JsonUtil::GetArrayProperty(): Property %s is not an array", name);
        return false;
    }
    out.reserve(member->size());
    for (const Json::Value& element : *member) {
        if (element.isString()) {
            out.push_back(CORE::toWide(element.asString()));
        }
    }
    return true;
}

void logRedacted(std::string_view name, std::string_view value) {
    const bool hidden = isRedacted(name);
    MFW_LOG(1, "JsonUtil::logRedacted(): Property %s = %s", std::string(name).c_str(),
            hidden ? kRedactionMask.data() : std::string(value).c_str());
}

}  // namespace ndpx::JsonUtil
