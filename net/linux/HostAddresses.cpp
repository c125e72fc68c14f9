#include "net/HostAddresses.h"

#include <platform/UniqueFd.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace ndpx::net {
namespace {

struct AddrInfoFree {
    void operator()(addrinfo* p) const { ::freeaddrinfo(p); }
};
struct IfAddrsFree {
    void operator()(ifaddrs* p) const { ::freeifaddrs(p); }
};

std::string addressText(const sockaddr* sa) {
    char buf[INET6_ADDRSTRLEN] = {};
    if (sa->sa_family == AF_INET) {
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, buf, sizeof buf);
    } else if (sa->sa_family == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, buf,
                    sizeof buf);
    }
    return buf;
}

}  // namespace

bool parseAddress(const std::string& text, std::array<unsigned char, 16>& bytes, bool& v4) {
    bytes.fill(0);
    in_addr a4{};
    if (::inet_pton(AF_INET, text.c_str(), &a4) == 1) {
        v4 = true;
        bytes[10] = bytes[11] = 0xff;
        std::memcpy(bytes.data() + 12, &a4, 4);
        return true;
    }
    v4 = false;
    return ::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

std::vector<std::string> resolveHostAddresses(const std::string& host, bool ipv4Only) {
    std::vector<std::string> out;
    addrinfo hints{};
    hints.ai_family = ipv4Only ? AF_INET : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    if (host.empty() || ::getaddrinfo(host.c_str(), nullptr, &hints, &raw) != 0) {
        return out;
    }
    const std::unique_ptr<addrinfo, AddrInfoFree> list(raw);
    for (const addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        std::string text = addressText(ai->ai_addr);
        if (!text.empty() && std::find(out.begin(), out.end(), text) == out.end()) {
            out.push_back(std::move(text));
        }
    }
    return out;
}

std::vector<std::string> interfaceAddresses() {
    std::vector<std::string> out;
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) {
        return out;
    }
    const std::unique_ptr<ifaddrs, IfAddrsFree> list(raw);
    for (const ifaddrs* ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr != nullptr) {
            if (std::string text = addressText(ifa->ifa_addr); !text.empty()) {
                out.push_back(std::move(text));
            }
        }
    }
    return out;
}

std::string outboundIpv4Address() {
    // The source address of a route to a documentation address: a UDP
    // connect picks the route and sends nothing.
    const platform::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return {};
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(53);
    ::inet_pton(AF_INET, "192.0.2.1", &to.sin_addr);
    sockaddr_in self{};
    socklen_t len = sizeof self;
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
        ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&self), &len) != 0 ||
        self.sin_addr.s_addr == 0) {
        return {};
    }
    return addressText(reinterpret_cast<const sockaddr*>(&self));
}

}  // namespace ndpx::net
