#pragma once
// Helpers shared by the source files of mqttConfig; not part of its interface.

#include "config/mqttConfig.h"

#include <cstdint>
#include <string>

namespace ndpx::settings {

// The table row of `name`. Only a typo in our own sources can miss the table;
// such a name gets a row without range.
const SettingDef& definition(const wchar_t* name);

std::int64_t parseDecimal(const std::wstring& text);

// "true", "1" or "yes" in any case.
bool isTrue(const std::wstring& text);

}  // namespace ndpx::settings
