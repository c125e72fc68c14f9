#pragma once
// Typed property readers for JSON objects with uniform, redacted logging.

#include <json/value.h>

#include <string>
#include <string_view>
#include <vector>

namespace ndpx::JsonUtil {

bool GetStringProperty(const Json::Value& json, const char* name, std::string& out);
bool GetBooleanProperty(const Json::Value& json, const char* name, bool& out);
bool GetArrayProperty(const Json::Value& json, const char* name, std::vector<std::wstring>& out);
// Logs one property at level 1, masking the value of redacted names.
void logRedacted(std::string_view name, std::string_view value);

}  // namespace ndpx::JsonUtil
