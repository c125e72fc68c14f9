// The rule for picking the machine's own address, whatever lists them.

#include "platform/HostAddress.h"

namespace ndpx::platform {

std::string choosePrimaryAddress(std::string_view defaultRouteInterface,
                                 const std::vector<InterfaceAddress>& addresses) {
    if (!defaultRouteInterface.empty()) {
        for (const InterfaceAddress& a : addresses) {
            if (a.ipv4 && a.interfaceName == defaultRouteInterface) {
                return a.address;
            }
        }
    }
    for (const InterfaceAddress& a : addresses) {
        if (!a.loopback) {
            return a.address;
        }
    }
    return {};
}

}  // namespace ndpx::platform
