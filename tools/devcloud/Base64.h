#pragma once
// Base64 (standard alphabet, padded) as the credential exchange uses it: the
// agent sends its CSR's PEM text this way and gets certificates back so.

#include <optional>
#include <string>
#include <string_view>

namespace ndpx::devcloud {

// One line, no line breaks.
std::string base64Encode(std::string_view bytes);
// Strict: whitespace (line breaks included) is skipped, anything else outside
// the alphabet, a length that is not a multiple of four or padding before the
// end gives nullopt.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace ndpx::devcloud
