#pragma once
// The jittered waits of the agent's periodic threads: agents started
// together spread their requests over the last quarter of the interval.

#include <chrono>
#include <cstdint>
#include <random>

namespace ndpx {

// (0.75 + 0.25 * u) of `seconds`, u in [0, 1), truncated to milliseconds.
std::chrono::milliseconds jitteredWait(std::int64_t seconds, double u);

// A uniform double in [0, 1) with 53 random bits from two 32-bit draws.
double uniformDraw(std::mt19937& generator);

}  // namespace ndpx
