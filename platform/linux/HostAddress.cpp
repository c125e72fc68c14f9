// The machine's own address on Linux: the default route from /proc/net/route,
// the addresses from getifaddrs.

#include "platform/HostAddress.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace ndpx::platform {
namespace {

struct IfAddrsFree {
    void operator()(ifaddrs* list) const { ::freeifaddrs(list); }
};

// The interface of the first route to 0.0.0.0/0 that is up; empty when none.
std::string defaultRouteInterface() {
    std::ifstream in("/proc/net/route");
    std::string line;
    std::getline(in, line);  // the column titles
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string name, destination, gateway, flags, refCount, use, metric, mask;
        if (!(fields >> name >> destination >> gateway >> flags >> refCount >> use >> metric >>
              mask)) {
            continue;
        }
        const unsigned long up = std::strtoul(flags.c_str(), nullptr, 16) & 0x1;  // RTF_UP
        if (destination == "00000000" && mask == "00000000" && up != 0) {
            return name;
        }
    }
    return {};
}

std::vector<InterfaceAddress> interfaceAddresses() {
    std::vector<InterfaceAddress> out;
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) {
        return out;
    }
    const std::unique_ptr<ifaddrs, IfAddrsFree> list(raw);
    for (const ifaddrs* ifa = list.get(); ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr) {
            continue;
        }
        const int family = ifa->ifa_addr->sa_family;
        char text[INET6_ADDRSTRLEN] = "";
        const void* bytes = nullptr;
        if (family == AF_INET) {
            bytes = &reinterpret_cast<const sockaddr_in*>(ifa->ifa_addr)->sin_addr;
        } else if (family == AF_INET6) {
            bytes = &reinterpret_cast<const sockaddr_in6*>(ifa->ifa_addr)->sin6_addr;
        }
        if (bytes == nullptr || ::inet_ntop(family, bytes, text, sizeof text) == nullptr) {
            continue;
        }
        out.push_back(
            {ifa->ifa_name, text, family == AF_INET, (ifa->ifa_flags & IFF_LOOPBACK) != 0});
    }
    return out;
}

}  // namespace

std::string hostIpAddress() {
    return choosePrimaryAddress(defaultRouteInterface(), interfaceAddresses());
}

}  // namespace ndpx::platform
