#pragma once
// The machine's own address, the one a client elsewhere would connect to.

#include <string>
#include <string_view>
#include <vector>

namespace ndpx::platform {

// The IPv4 address of the interface that carries the default route, else the
// first non-loopback address of any interface; empty when there is none.
std::string hostIpAddress();

// One address of one interface, as the system lists them.
struct InterfaceAddress {
    std::string interfaceName;
    std::string address;
    bool ipv4 = false;
    bool loopback = false;
};

// The choice hostIpAddress makes, given the default route's interface (empty
// when there is no default route) and the interfaces' addresses in the
// system's order.
std::string choosePrimaryAddress(std::string_view defaultRouteInterface,
                                 const std::vector<InterfaceAddress>& addresses);

}  // namespace ndpx::platform
