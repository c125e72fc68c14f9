#include <mfw/corestring.h>

#include <array>

namespace CORE {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
    std::array<std::uint8_t, 256> table{};
    for (auto& v : table) {
        v = kInvalid;
    }
    for (std::uint8_t i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = i;
    }
    return table;
}

constexpr std::array<std::uint8_t, 256> kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(const void* data, std::size_t size) {
    const auto* in = static_cast<const unsigned char*>(data);
    std::string out;
    if (in == nullptr || size == 0) {
        return out;
    }
    out.reserve((size + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const std::uint32_t v = (in[i] << 16) | (in[i + 1] << 8) | in[i + 2];
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.push_back(kAlphabet[(v >> 6) & 0x3F]);
        out.push_back(kAlphabet[v & 0x3F]);
    }
    const std::size_t rest = size - i;
    if (rest > 0) {
        std::uint32_t v = in[i] << 16;
        if (rest == 2) {
            v |= in[i + 1] << 8;
        }
        out.push_back(kAlphabet[(v >> 18) & 0x3F]);
        out.push_back(kAlphabet[(v >> 12) & 0x3F]);
        out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 0x3F] : '=');
        out.push_back('=');
    }
    return out;
}

// Line breaks are allowed anywhere (PEM-style wrapping); padding, when
// present, must complete the last quantum and nothing may follow it.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3 + 3);
    std::uint32_t accumulator = 0;
    std::size_t symbols = 0;  // data symbols seen
    std::size_t padding = 0;
    for (char c : text) {
        if (c == '\r' || c == '\n') {
            continue;
        }
        if (c == '=') {
            ++padding;
            continue;
        }
        if (padding > 0) {
            return std::nullopt;  // data after padding
        }
        const std::uint8_t v = kDecode[static_cast<unsigned char>(c)];
        if (v == kInvalid) {
            return std::nullopt;
        }
        accumulator = (accumulator << 6) | v;
        if (++symbols % 4 == 0) {
            out.push_back(static_cast<std::uint8_t>(accumulator >> 16));
            out.push_back(static_cast<std::uint8_t>(accumulator >> 8));
            out.push_back(static_cast<std::uint8_t>(accumulator));
            accumulator = 0;
        }
    }
    const std::size_t tail = symbols % 4;
    if (tail == 1) {
        return std::nullopt;  // six bits cannot make a byte
    }
    if (padding > 0 && (tail == 0 || tail + padding != 4)) {
        return std::nullopt;
    }
    if (tail == 2) {
        out.push_back(static_cast<std::uint8_t>(accumulator >> 4));
    } else if (tail == 3) {
        out.push_back(static_cast<std::uint8_t>(accumulator >> 10));
        out.push_back(static_cast<std::uint8_t>(accumulator >> 2));
    }
    return out;
}

}  // namespace CORE
