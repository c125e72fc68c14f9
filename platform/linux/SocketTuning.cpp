#include <platform/SocketTuning.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

    std::unique_ptr<DIR, DirDeleter> dir(opendir("/proc/self/fd"));
    if (!dir) {
        return 0;
    }
    int changed = 0;
    while (dirent* entry = readdir(dir.get())) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(dir.get())) {
            continue;
        }
        struct stat st {};
        if (fstat(static_cast<int>(fd), &st) != 0 || !S_ISSOCK(st.st_mode)) {
            continue;
        }
        sockaddr_storage peer{};
        socklen_t len = sizeof peer;
        if (getpeername(static_cast<int>(fd), reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
            continue;
        }
        for (const addrinfo* a = addresses.get(); a != nullptr; a = a->ai_next) {
            if (samePeer(peer, a->ai_addr)) {
                const int on = 1;
                if (setsockopt(static_cast<int>(fd), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) ==
                    0) {
                    ++changed;
                }
                break;
            }
        }
    }
    return changed;
}

}  // namespace ndpx::platform
