#pragma once
// Base64 (RFC 4648, standard alphabet, padded) for payloads on the wire, kept
// here so that the client library does not need the host framework.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::ipcclient::detail {

std::string base64Encode(std::span<const std::uint8_t> data);
// Accepts padded and unpadded text; nothing for any other character, or for
// data after the padding.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace ndpx::ipcclient::detail
