#include "devcloud/Lifetime.h"

#include <cctype>

namespace ndpx::devcloud {

std::optional<std::chrono::seconds> parseLifetime(const std::string& text) {
    constexpr long long kMaxSeconds = 10LL * 365 * 24 * 3600;
    std::size_t digits = 0;
    long long value = 0;
    for (; digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])) != 0;
         ++digits) {
        value = value * 10 + (text[digits] - '0');
        if (value > kMaxSeconds) {
            return std::nullopt;
        }
    }
    const std::string unit = text.substr(digits);
    long long scale = 0;
    if (unit.empty() || unit == "s") {
        scale = 1;
    } else if (unit == "m") {
        scale = 60;
    } else if (unit == "h") {
        scale = 3600;
    } else if (unit == "d") {
        scale = 24LL * 3600;
    }
    if (digits == 0 || scale == 0 || value == 0 || value > kMaxSeconds / scale) {
        return std::nullopt;
    }
    return std::chrono::seconds(value * scale);
}

}  // namespace ndpx::devcloud
