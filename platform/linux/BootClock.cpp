#include "../common/BootClock.h"

#include <time.h>

namespace ndpx::platform {

std::optional<std::uint64_t> bootClockMilliseconds() {
    // CLOCK_BOOTTIME counts on while the machine sleeps; CLOCK_MONOTONIC,
    // under steady_clock, does not.
    timespec ts{};
    if (::clock_gettime(CLOCK_BOOTTIME, &ts) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

}  // namespace ndpx::platform
