#pragma once
// Tells a TLS refusal from other connection failures. The stock client
// library reports a refused handshake and a refused client certificate as a
// plain "connect completion failure", so after a failure without TLS in its
// text the manager repeats the handshake itself, with the same material.

#include "net/CancelToken.h"

#include <chrono>
#include <string>

namespace ndpx {

enum class TlsProbeResult {
    Refused,      // the handshake failed or the broker rejected our certificate
    Accepted,     // TLS is fine: the failure lies elsewhere
    Unreachable,  // no TCP connection at all
};

// `trustFile`, `certFile`, `keyFile`: the PEM files the client library uses.
// Every wait ends at `limit`, or at once when `cancel` fires (a stopping
// manager).
TlsProbeResult probeTls(const std::string& host, int port, const std::string& trustFile,
                        const std::string& certFile, const std::string& keyFile,
                        net::CancelToken* cancel = nullptr,
                        std::chrono::milliseconds limit = std::chrono::seconds(3));

}  // namespace ndpx
