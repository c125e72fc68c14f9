#include "IoWaker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace ndpx::ipc::seqpacket {

IoWaker::IoWaker() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void IoWaker::wake() const {
    // A full counter (EAGAIN) is already a wake-up.
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(fd_.get(), &one, sizeof one);
}

void IoWaker::drain() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto n = ::read(fd_.get(), &count, sizeof count);
}

}  // namespace ndpx::ipc::seqpacket
