#include "devcloud/Base64.h"

#include <array>
#include <cstdint>

namespace ndpx::devcloud {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> decodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& v : table) {
        v = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const auto n = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16 |
                       static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8 |
                       static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 2]));
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += kAlphabet[n & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t n = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
        if (rest == 2) {
            n |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
        }
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
    static constexpr auto kTable = decodeTable();
    std::string out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    int inGroup = 0;
    int padding = 0;
    for (const char c : text) {
        if (isSpace(c)) {
            continue;
        }
        if (c == '=') {
            // Padding only in the last two places of the last group.
            if (inGroup < 2) {
                return std::nullopt;
            }
            ++padding;
            group <<= 6;
            ++inGroup;
        } else {
            const std::int8_t v = kTable[static_cast<unsigned char>(c)];
            if (v < 0 || padding > 0) {
                return std::nullopt;
            }
            group = group << 6 | static_cast<std::uint32_t>(v);
            ++inGroup;
        }
        if (inGroup == 4) {
            out += static_cast<char>((group >> 16) & 0xff);
            if (padding < 2) {
                out += static_cast<char>((group >> 8) & 0xff);
            }
            if (padding < 1) {
                out += static_cast<char>(group & 0xff);
            }
            group = 0;
            inGroup = 0;
            if (padding > 0) {
                // Nothing may follow a padded group.
                padding = 3;
            }
        }
    }
    if (inGroup != 0) {
        return std::nullopt;
    }
    return out;
}

}  // namespace ndpx::devcloud
