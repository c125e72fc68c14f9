#pragma once
// IP addresses as this machine sees them: address literals, the system
// resolver and the machine's own addresses. Addresses travel as text.

#include <array>
#include <string>
#include <vector>

namespace ndpx::net {

// An address literal as 16 bytes (IPv4 mapped into IPv6) and whether it was IPv4.
bool parseAddress(const std::string& text, std::array<unsigned char, 16>& bytes, bool& v4);

// The addresses `host` resolves to (only IPv4 ones when `ipv4Only`), in the
// resolver's order without repeats; empty when it resolves to none.
std::vector<std::string> resolveHostAddresses(const std::string& host, bool ipv4Only);

// The IPv4 and IPv6 addresses of this machine's interfaces, loopback and
// link-local ones included.
std::vector<std::string> interfaceAddresses();

// The IPv4 address traffic to the outside world would leave from; empty
// when there is no route.
std::string outboundIpv4Address();

}  // namespace ndpx::net
