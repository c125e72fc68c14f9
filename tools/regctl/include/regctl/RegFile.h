#pragma once
// Reading registry export files (.reg text) into a list of store operations,
// and the value-argument parsing shared with the command line.

#include <platform/SettingsStore.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::regctl {

struct RegOperation {
    enum class Kind { CreateKey, DeleteKey, SetValue, DeleteValue };

    Kind kind = Kind::CreateKey;
    std::string key;
    std::string name;  // "" is the key's default value ("@")
    platform::SettingValue value;
    int line = 0;  // where it came from, for messages
};

// Parses the whole file before anything is written, so that a bad line
// leaves the store untouched. Accepts UTF-8 (with or without BOM) and
// UTF-16LE with BOM, as exported by Windows. On failure returns false and
// sets `error` to "line N: what is wrong".
bool parseRegFile(std::string_view content, std::vector<RegOperation>& operations,
                  std::string& error);

// Applies the operations in order; stops at the first failure.
bool applyRegOperations(platform::SettingsStore& store, const std::vector<RegOperation>& operations,
                        std::string& error);

// A DWORD argument: decimal or 0x-prefixed hexadecimal, 0 to 0xffffffff.
std::optional<std::uint32_t> parseDwordArgument(std::string_view text);

// UTF-16LE bytes to UTF-8; unpaired surrogates become U+FFFD.
std::string utf16LeToUtf8(std::string_view bytes);

}  // namespace ndpx::regctl
