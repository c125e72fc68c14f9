#pragma once
// Lowers the process's open-file limit so that only `spare` more descriptors
// can be opened (the lowest free number is taken first), as when the system's
// inotify instances or a process's descriptors run out; restores it after.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace ndpx::test {

class FdLimit {
public:
    // UBSan's type check tells readable memory by writing it to a pipe; with
    // no descriptor left it reports every checked object as invalid.
    static constexpr bool kSanitizerNeedsDescriptors =
#if defined(__SANITIZE_ADDRESS__)
        true;
#else
        false;
#endif

    explicit FdLimit(int spare) {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        // Descriptors the process inherited may sit above the lowest free
        // one (a test runner's pipes): the limit ends after the spare-th free.
        int fd = 0;
        for (int free = 0; free < spare || ::fcntl(fd, F_GETFD) != -1; ++fd) {
            if (::fcntl(fd, F_GETFD) == -1) {
                ++free;
            }
        }
        rlimit lowered = saved_;
        lowered.rlim_cur = static_cast<rlim_t>(fd);
        ::setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~FdLimit() {
        ::setrlimit(RLIMIT_NOFILE, &saved_);
    }
    FdLimit(const FdLimit&) = delete;
    FdLimit& operator=(const FdLimit&) = delete;

private:
    rlimit saved_{};
};

}  // namespace ndpx::test
