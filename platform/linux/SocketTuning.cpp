#include <platform/SocketTuning.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace ndpx::platform {
namespace {

struct AddrInfoDeleter {
    void operator()(addrinfo* p) const { freeaddrinfo(p); }
};
struct DirDeleter {
    void operator()(DIR* d) const { closedir(d); }
};

bool samePeer(const sockaddr_storage& a, const sockaddr* b) {
    if (a.ss_family != b->sa_family) {
        return false;
    }
    if (a.ss_family == AF_INET) {
        const auto* x = reinterpret_cast<const sockaddr_in*>(&a);
        const auto* y = reinterpret_cast<const sockaddr_in*>(b);
        return x->sin_port == y->sin_port && x->sin_addr.s_addr == y->sin_addr.s_addr;
    }
    if (a.ss_family == AF_INET6) {
        const auto* x = reinterpret_cast<const sockaddr_in6*>(&a);
        const auto* y = reinterpret_cast<const sockaddr_in6*>(b);
        return x->sin6_port == y->sin6_port &&
               std::memcmp(&x->sin6_addr, &y->sin6_addr, sizeof x->sin6_addr) == 0;
    }
    return false;
}

// Another thread may close or reuse any descriptor number at any moment, so the
// scan never touches one directly: it takes its own copy of the socket through
// a pidfd and works on that. What the copy names was the socket at that number
// when it was taken; the peer check decides whether it is one of ours.
//
// The pidfd and the copies are made by system calls no instrumentation sees
// (glibc 2.36's <sys/pidfd.h> is not usable from C++), so they are closed the
// same way: a race detector that never saw them made would otherwise blame
// their closing on whoever last used the same number.
class ScanFd {
public:
    explicit ScanFd(long fd) : fd_(static_cast<int>(fd)) {}
    ~ScanFd() {
        if (fd_ >= 0) {
            syscall(SYS_close, fd_);
        }
    }
    ScanFd(const ScanFd&) = delete;
    ScanFd& operator=(const ScanFd&) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

bool isSocketLink(int dirFd, const char* name) {
    char target[64];
    const ssize_t n = readlinkat(dirFd, name, target, sizeof target - 1);
    return n > 0 && std::strncmp(target, "socket:", 7) == 0;
}

}  // namespace

int setNoDelayForPeer(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    const std::string service = std::to_string(port);
    if (getaddrinfo(host.c_str(), service.c_str(), &hints, &raw) != 0) {
        return 0;
    }
    std::unique_ptr<addrinfo, AddrInfoDeleter> addresses(raw);

    const ScanFd self(syscall(SYS_pidfd_open, getpid(), 0));
    std::unique_ptr<DIR, DirDeleter> dir(opendir("/proc/self/fd"));
    if (!self || !dir) {
        return 0;
    }
    int changed = 0;
    while (dirent* entry = readdir(dir.get())) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' ||
            !isSocketLink(dirfd(dir.get()), entry->d_name)) {
            continue;
        }
        const ScanFd copy(syscall(SYS_pidfd_getfd, self.get(), static_cast<int>(fd), 0));
        sockaddr_storage peer{};
        socklen_t len = sizeof peer;
        if (!copy || getpeername(copy.get(), reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
            continue;
        }
        for (const addrinfo* a = addresses.get(); a != nullptr; a = a->ai_next) {
            if (samePeer(peer, a->ai_addr)) {
                const int on = 1;
                if (setsockopt(copy.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0) {
                    ++changed;
                }
                break;
            }
        }
    }
    return changed;
}

}  // namespace ndpx::platform
