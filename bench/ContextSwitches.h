#pragma once
// Context switches of a whole process, from /proc: the sum over its threads.

#include <sys/types.h>

#include <cstdint>

namespace ndpx::bench {

// Voluntary plus non-voluntary switches of every thread `pid` has now
// (threads that already ended are not counted); 0 when it is gone.
std::uint64_t contextSwitches(pid_t pid);

}  // namespace ndpx::bench
