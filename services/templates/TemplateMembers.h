#pragma once
// Members of a template message, read as their expected type. A member of
// another type gives the default and a log line naming it, never its value
// (it may be a password).

#include <json/value.h>

#include <cstdint>
#include <string>

namespace ndpx {

std::string templateString(const Json::Value& message, const char* name);
bool templateBool(const Json::Value& message, const char* name, bool fallback);
std::int64_t templateInt(const Json::Value& message, const char* name, std::int64_t fallback);
bool hasTemplateString(const Json::Value& message, const char* name);

}  // namespace ndpx
