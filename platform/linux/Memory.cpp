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
    mallopt(M_ARENA_MAX, 1);
#endif
}

}  // namespace ndpx::platform
