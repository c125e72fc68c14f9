#pragma once
// String helpers of the host framework: UTF-8 <-> wide conversion, case-blind
// comparison, base64, GUIDs, printf-style formatting and registry access.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace CORE {

// Invalid UTF-8 sequences become U+FFFD; never throws.
std::wstring toWide(std::string_view utf8);
// Unpaired surrogates and values beyond U+10FFFF become U+FFFD; never throws.
std::string toUtf8(std::wstring_view wide);
// The same into `out`, replacing its text and reusing its storage.
void toUtf8(std::wstring_view wide, std::string& out);

// True when `text` is well-formed UTF-8 (so it converts without loss).
bool isValidUtf8(std::string_view text);

bool iequals(std::string_view a, std::string_view b);    // ASCII case-blind
bool iequals(std::wstring_view a, std::wstring_view b);  // ASCII case-blind
std::string toLowerAscii(std::string_view s);

std::string base64Encode(const void* data, std::size_t size);
inline std::string base64Encode(std::string_view s) {
    return base64Encode(s.data(), s.size());
}
// Accepts padded and unpadded input, ignores CR/LF; nullopt on bad input.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

// A random (version 4) GUID in registry form: "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".
// Upper-case hex. Returns nullopt only if no randomness is available.
std::optional<std::string> makeGuid();
inline constexpr std::string_view kNullGuid = "{00000000-0000-0000-0000-000000000000}";

// printf into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Registry access through the process's settings store. `fullPath` is
// "KEY\NAME", e.g. "HKLM\Software\Brasswick, Inc.\Brasswick Orvane\FipsMode".
std::optional<std::string> readRegistry(std::string_view fullPath);
bool writeRegistryString(std::string_view fullPath, std::string_view value);
bool writeRegistryDword(std::string_view fullPath, std::uint32_t value);

}  // namespace CORE
