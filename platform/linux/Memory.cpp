#include "platform/Memory.h"

#include <malloc.h>

namespace ndpx::platform {

void releaseFreeMemory() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

}  // namespace ndpx::platform
