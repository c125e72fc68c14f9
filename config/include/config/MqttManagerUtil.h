#pragma once
// Conversion between JSON messages and host PropertyBags, and the owner check
// applied before a provisioning file is trusted.

#include <mfw/PropertyBag.h>
#include <platform/SecureFile.h>

#include <json/value.h>

#include <string>

namespace ndpx {

// The owner a file must have to be trusted; nobody else may write it either.
using FileOwner = platform::FileOwner;
inline constexpr FileOwner kLocalSystemOwner = FileOwner::LocalSystem;

namespace MqttManagerUtil {

// Fills `bag` from a JSON object; false (bag untouched) for any other value.
bool JSONToBag(const Json::Value& json, CORE::PropertyBag& bag);
void toBag(const Json::Value& json, CORE::PropertyBag& bag);
// An empty bag gives JSON null.
Json::Value BagToJSON(const CORE::PropertyBag& bag);
void toJSON(const CORE::PropertyBag& bag, Json::Value& json);

bool FileExistsWithRequiredOwner(const std::string& path, FileOwner owner);

// Compact JSON text (no newlines, no indentation), as published.
std::string writeCompact(const Json::Value& json);
// Parses `text` (comments allowed); false and `error` on failure.
bool parseJson(std::string_view text, Json::Value& out, std::string* error = nullptr);

}  // namespace MqttManagerUtil
}  // namespace ndpx
