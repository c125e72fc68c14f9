#include <platform/Threads.h>

#include <pthread.h>
#include <unistd.h>

#include <cstddef>

namespace ndpx::platform {

unsigned long currentThreadId() {
    return static_cast<unsigned long>(::gettid());
}

void setCurrentThreadOsName(const std::string& name) {
    // Longer names are refused outright, not shortened.
    constexpr std::size_t kMaxNameBytes = 15;
    ::pthread_setname_np(::pthread_self(), name.substr(0, kMaxNameBytes).c_str());
}

}  // namespace ndpx::platform
