#include "PayloadText.h"

#include <mfw/corestring.h>

#include <string_view>

namespace ndpx::ipcctl {
namespace {

constexpr std::string_view kPrefix = "base64:";

// No control character: C0 (line feeds among them), DEL or C1 (U+0080 to
// U+009F, encoded C2 80 to C2 9F).
bool printable(std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool c1 =
            c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (c < 0x20 || c == 0x7F || c1) {
            return false;
        }
    }
    return CORE::isValidUtf8(text);
}

}  // namespace

std::string payloadText(std::span<const std::uint8_t> payload) {
    const std::string_view text(reinterpret_cast<const char*>(payload.data()), payload.size());
    if (printable(text) && !text.starts_with(kPrefix)) {
        return std::string(text);
    }
    return std::string(kPrefix) + CORE::base64Encode(payload.data(), payload.size());
}

}  // namespace ndpx::ipcctl
