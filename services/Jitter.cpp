#include "services/Jitter.h"

namespace ndpx {

std::chrono::milliseconds jitteredWait(std::int64_t seconds, double u) {
    return std::chrono::milliseconds(
        static_cast<std::int64_t>((0.75 + 0.25 * u) * static_cast<double>(seconds) * 1000.0));
}

double uniformDraw(std::mt19937& generator) {
    const std::uint32_t high = generator() >> 5;  // 27 bits
    const std::uint32_t low = generator() >> 6;   // 26 bits
    return (high * 67108864.0 + low) * (1.0 / 9007199254740992.0);
}

}  // namespace ndpx
