#pragma once
// The registration thread's retry wait: doubling from the minimum towards
// the maximum, with a random jitter added on top every time.

#include <cstdint>
#include <random>

namespace ndpx {

inline constexpr std::int32_t kIntervalUnset = -1;  // all bits one

// A uniform integer in [low, high] from `gen`, without modulo bias: the
// 32-bit output is multiplied by the range size and low products below
// (-size mod size) are drawn again.
std::int32_t boundedDraw(std::mt19937& gen, std::int32_t low, std::int32_t high);

// The next wait in seconds. The sum is not capped again after the jitter.
std::int32_t nextRegistrationInterval(std::int32_t interval, std::int32_t minWait,
                                      std::int32_t maxWait, std::int32_t minJitter,
                                      std::int32_t maxJitter, std::mt19937& gen);

}  // namespace ndpx
