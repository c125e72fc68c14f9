#include "mqtt/Backoff.h"

#include <algorithm>

namespace ndpx {

std::int32_t boundedDraw(std::mt19937& gen, std::int32_t low, std::int32_t high) {
    if (high <= low) {
        return low;
    }
    const auto size = static_cast<std::uint32_t>(static_cast<std::int64_t>(high) - low + 1);
    std::uint64_t product = static_cast<std::uint64_t>(gen()) * size;
    auto lowBits = static_cast<std::uint32_t>(product);
    if (lowBits < size) {
        const std::uint32_t threshold = (0u - size) % size;
        while (lowBits < threshold) {
            product = static_cast<std::uint64_t>(gen()) * size;
            lowBits = static_cast<std::uint32_t>(product);
        }
    }
    return low + static_cast<std::int32_t>(product >> 32);
}

std::int32_t nextRegistrationInterval(std::int32_t interval, std::int32_t minWait,
                                      std::int32_t maxWait, std::int32_t minJitter,
                                      std::int32_t maxJitter, std::mt19937& gen) {
    std::int32_t base = minWait;
    if (interval != kIntervalUnset) {
        const std::int64_t doubled = 2 * static_cast<std::int64_t>(interval);
        base = static_cast<std::int32_t>(std::min<std::int64_t>(doubled, maxWait));
    }
    return base + boundedDraw(gen, minJitter, std::max(minJitter, maxJitter));
}

}  // namespace ndpx
