#pragma once
// Text from outside (a request's fields, a peer's address) goes into a log
// line only printable and short.

#include <string>

namespace ndpx::devcloud {

inline std::string printable(const std::string& text) {
    constexpr std::size_t kMax = 96;
    std::string out;
    for (const char c : text.substr(0, kMax)) {
        out += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    }
    return text.size() > kMax ? out + "..." : out;
}

}  // namespace ndpx::devcloud
