#pragma once
// Lowers the process's open-file limit so that only `spare` more descriptors
// can be opened (the lowest free number is taken first), as when the system's
// inotify instances or a process's descriptors run out; restores it after.

#include <sys/resource.h>
#include <unistd.h>

namespace ndpx::test {

class FdLimit {
public:
    explicit FdLimit(int spare) {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        const int lowestFree = ::dup(0);
        ::close(lowestFree);
        rlimit lowered = saved_;
        lowered.rlim_cur = static_cast<rlim_t>(lowestFree + spare);
        ::setrlimit(RLIMIT_NOFILE, &lowered);
    }
    ~FdLimit() { ::setrlimit(RLIMIT_NOFILE, &saved_); }
    FdLimit(const FdLimit&) = delete;
    FdLimit& operator=(const FdLimit&) = delete;

private:
    rlimit saved_{};
};

}  // namespace ndpx::test
