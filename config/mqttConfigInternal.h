#pragma once
// Helpers shared by the source files of mqttConfig; not part of its interface.

#include "config/mqttConfig.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace ndpx::settings {

// The table row of `name`. Only a typo in our own sources can miss the table;
// such a name gets a row without range.
const SettingDef& definition(const wchar_t* name);

// A decimal integer: an optional sign and digits, nothing else, within the
// signed 32-bit range.
std::optional<std::int32_t> parseInt32(std::wstring_view text);

// "true", "1" or "yes" in any case.
bool isTrue(std::wstring_view text);

}  // namespace ndpx::settings
