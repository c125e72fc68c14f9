#pragma once
// Handing freed heap memory back to the system.

namespace ndpx::platform {

// Returns the free pages of every heap arena to the system. The allocator
// keeps what a large message once needed, for good, unless asked: a desktop
// that once took a big message would otherwise carry it for its lifetime.
void releaseFreeMemory();

// Keeps every thread's allocations in one heap arena. A service that mostly
// sits idle gains nothing from an arena per busy thread, and each arena keeps
// pages of its own. Call before starting threads.
void useOneHeapArena();

}  // namespace ndpx::platform
