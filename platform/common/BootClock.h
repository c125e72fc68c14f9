#pragma once
// The system's count of milliseconds since boot, including time the machine
// slept (as the Windows tick count does); the real TimeSource's boot clock.

#include <cstdint>
#include <optional>

namespace ndpx::platform {

// Empty when the system cannot tell.
std::optional<std::uint64_t> bootClockMilliseconds();

}  // namespace ndpx::platform
