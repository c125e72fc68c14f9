#pragma once
// Paho does not expose its socket, and neither Paho nor the broker turn off
// Nagle's algorithm; small request/response exchanges then wait for delayed
// acknowledgements. This finds the process's own TCP sockets by their peer
// address and sets TCP_NODELAY on them.

#include <string>

namespace ndpx::devcloud {

// Sets (or clears) TCP_NODELAY on every TCP socket of this process whose
// peer is `host` (a name or an address) and `port`. Returns how many sockets
// were changed.
int setNoDelayForPeer(const std::string& host, int port, bool on = true);

}  // namespace ndpx::devcloud
