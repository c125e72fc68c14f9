#include "TemplateMembers.h"

#include <mfw/moduleLog.h>

#include <cstring>

namespace ndpx {
namespace {

const Json::Value* typedMember(const Json::Value& message, const char* name,
                               bool (Json::Value::*isType)() const) {
    const Json::Value* member = message.find(name, name + std::strlen(name));
    if (member == nullptr || member->isNull()) {
        return nullptr;
    }
    if (!(member->*isType)()) {
        MFW_LOG(CORE::kLogWarning,
                "TemplateHandler::HandleMsg(): Member %s has the wrong type; its default is used",
                name);
        return nullptr;
    }
    return member;
}

}  // namespace

std::string templateString(const Json::Value& message, const char* name) {
    const Json::Value* member = typedMember(message, name, &Json::Value::isString);
    return member != nullptr ? member->asString() : std::string();
}

bool templateBool(const Json::Value& message, const char* name, bool fallback) {
    const Json::Value* member = typedMember(message, name, &Json::Value::isBool);
    return member != nullptr ? member->asBool() : fallback;
}

std::int64_t templateInt(const Json::Value& message, const char* name, std::int64_t fallback) {
    const Json::Value* member = typedMember(message, name, &Json::Value::isInt64);
    return member != nullptr ? member->asInt64() : fallback;
}

bool hasTemplateString(const Json::Value& message, const char* name) {
    return typedMember(message, name, &Json::Value::isString) != nullptr;
}

}  // namespace ndpx
