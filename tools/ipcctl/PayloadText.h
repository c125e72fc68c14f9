#pragma once
// How ipcctl shows a payload on its one line: as it is when it is printable
// UTF-8, else "base64:" and its base64 (also when the text itself begins
// with "base64:", so that the two cannot be confused).

#include <cstdint>
#include <span>
#include <string>

namespace ndpx::ipcctl {

std::string payloadText(std::span<const std::uint8_t> payload);

}  // namespace ndpx::ipcctl
