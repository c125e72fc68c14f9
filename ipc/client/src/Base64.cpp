#include "Base64.h"

#include <algorithm>
#include <array>

namespace ndpx::ipcclient::detail {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNotBase64 = 0xFF;

constexpr std::array<std::uint8_t, 256> kDecode = [] {
    std::array<std::uint8_t, 256> table{};
    table.fill(kNotBase64);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return table;
}();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, data.size() - i);
        std::uint32_t v = static_cast<std::uint32_t>(data[i]) << 16;
        if (n > 1) {
            v |= static_cast<std::uint32_t>(data[i + 1]) << 8;
        }
        if (n > 2) {
            v |= data[i + 2];
        }
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.push_back(n > 1 ? kAlphabet[(v >> 6) & 0x3F] : '=');
        out.push_back(n > 2 ? kAlphabet[v & 0x3F] : '=');
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    // A lone last symbol (six bits) makes no byte; padding completes a quantum.
    if (text.size() % 4 == 1 || (padding > 0 && (text.size() + padding) % 4 != 0)) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3 + 2);
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const std::uint8_t v = kDecode[static_cast<unsigned char>(c)];
        if (v == kNotBase64) {
            return std::nullopt;
        }
        bits = (bits << 6) | v;
        if (++count == 4) {
            out.push_back(static_cast<std::uint8_t>(bits >> 16));
            out.push_back(static_cast<std::uint8_t>(bits >> 8));
            out.push_back(static_cast<std::uint8_t>(bits));
            bits = 0;
            count = 0;
        }
    }
    if (count == 2) {
        out.push_back(static_cast<std::uint8_t>(bits >> 4));
    } else if (count == 3) {
        out.push_back(static_cast<std::uint8_t>(bits >> 10));
        out.push_back(static_cast<std::uint8_t>(bits >> 2));
    }
    return out;
}

}  // namespace ndpx::ipcclient::detail
