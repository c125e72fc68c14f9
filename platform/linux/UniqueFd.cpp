#include <platform/UniqueFd.h>

#include <unistd.h>

namespace ndpx::platform {

void UniqueFd::reset(int fd) noexcept {
    const int old = std::exchange(fd_, fd);
    // Linux frees the descriptor even when close reports an error, so a
    // retry could close a descriptor another thread has just been given.
    if (old >= 0 && old != fd) {
        ::close(old);
    }
}

}  // namespace ndpx::platform
