#include "platform/Memory.h"

#include <malloc.h>

namespace ndpx::platform {

void releaseFreeMemory() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

void useOneHeapArena() {
#if defined(__GLIBC__)
    // Called before the process starts any thread, as its contract says.
    mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe)
#endif
}

}  // namespace ndpx::platform
