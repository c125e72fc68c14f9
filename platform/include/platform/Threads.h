#pragma once
// The operating system's view of the calling thread: the id that process
// listings and debuggers show, and the name they show for it.

#include <string>

namespace ndpx::platform {

// The calling thread's system-wide id.
unsigned long currentThreadId();

// Names the calling thread for the system's tools; the system may cut the
// name short (15 bytes on Linux).
void setCurrentThreadOsName(const std::string& name);

}  // namespace ndpx::platform
