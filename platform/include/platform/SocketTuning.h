#pragma once
// Socket options on connections that a library opened and does not expose.

#include <string>

namespace ndpx::platform {

// Sets TCP_NODELAY on every socket of this process whose peer is `host`:`port`
// (all addresses `host` resolves to). Returns how many sockets were changed.
int setNoDelayForPeer(const std::string& host, int port);

}  // namespace ndpx::platform
