#include "devcloud/TcpNoDelay.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace ndpx::devcloud {
namespace {

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
struct AddrInfoFree {
    void operator()(addrinfo* a) const { ::freeaddrinfo(a); }
};

std::vector<sockaddr_storage> resolve(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    const std::string service = std::to_string(port);
    std::vector<sockaddr_storage> out;
    if (::getaddrinfo(host.c_str(), service.c_str(), &hints, &raw) != 0) {
        return out;
    }
    const std::unique_ptr<addrinfo, AddrInfoFree> list(raw);
    for (const addrinfo* a = list.get(); a != nullptr; a = a->ai_next) {
        sockaddr_storage s{};
        std::memcpy(&s, a->ai_addr, a->ai_addrlen);
        out.push_back(s);
    }
    return out;
}

bool samePeer(const sockaddr_storage& a, const sockaddr_storage& b) {
    if (a.ss_family != b.ss_family) {
        return false;
    }
    if (a.ss_family == AF_INET) {
        const auto& x = reinterpret_cast<const sockaddr_in&>(a);
        const auto& y = reinterpret_cast<const sockaddr_in&>(b);
        return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
    }
    if (a.ss_family == AF_INET6) {
        const auto& x = reinterpret_cast<const sockaddr_in6&>(a);
        const auto& y = reinterpret_cast<const sockaddr_in6&>(b);
        return x.sin6_port == y.sin6_port &&
               std::memcmp(&x.sin6_addr, &y.sin6_addr, sizeof x.sin6_addr) == 0;
    }
    return false;
}

}  // namespace

int setNoDelayForPeer(const std::string& host, int port, bool on) {
    const std::vector<sockaddr_storage> peers = resolve(host, port);
    if (peers.empty()) {
        return 0;
    }
    const std::unique_ptr<DIR, DirCloser> dir(::opendir("/proc/self/fd"));
    if (!dir) {
        return 0;
    }
    int changed = 0;
    const int self = ::dirfd(dir.get());
    while (const dirent* entry = ::readdir(dir.get())) {
        char* end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == self) {
            continue;
        }
        // Only the descriptor table is read; a descriptor closed meanwhile
        // just fails the calls below.
        const int sock = static_cast<int>(fd);
        int type = 0;
        socklen_t len = sizeof type;
        if (::getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &len) != 0 || type != SOCK_STREAM) {
            continue;
        }
        sockaddr_storage peer{};
        socklen_t peerLen = sizeof peer;
        if (::getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) {
            continue;
        }
        for (const auto& wanted : peers) {
            if (samePeer(peer, wanted)) {
                const int value = on ? 1 : 0;
                if (::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0) {
                    ++changed;
                }
                break;
            }
        }
    }
    return changed;
}

}  // namespace ndpx::devcloud
