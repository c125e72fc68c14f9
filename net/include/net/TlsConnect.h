#pragma once
// Connections the network helpers make themselves (the chain probe, the
// broker's TLS refusal probe): resolve a host, connect over TCP within a
// limit, and run a client handshake on the caller's TLS set-up. Each wait
// ends at its limit, or at once when the caller's cancel token fires; name
// resolution is bounded by the system resolver's own limits only.

#include "net/CancelToken.h"
#include "net/Handles.h"

#include <platform/UniqueFd.h>

#include <chrono>
#include <string>
#include <utility>

namespace ndpx::net {

struct ConnectLimits {
    std::chrono::milliseconds connect{std::chrono::seconds(3)};    // for each address tried
    std::chrono::milliseconds handshake{std::chrono::seconds(3)};  // for the whole handshake
    CancelToken* cancel = nullptr;                                 // ends every wait when fired
};

// Where a connection attempt stopped.
enum class ConnectStep { None, Resolve, Connect, Setup, Handshake };

struct ConnectFailure {
    ConnectStep step = ConnectStep::None;
    std::string reason;  // the resolver's, the system's or the TLS library's words
    int sslError = 0;    // SSL_get_error() of a failed handshake
    bool cancelled = false;
    explicit operator bool() const { return step != ConnectStep::None; }
};

struct TcpConnectResult {
    platform::UniqueFd socket;  // connected and non-blocking, unless `failure`
    ConnectFailure failure;
};

// Resolves `host`:`port` and connects to the first address that accepts,
// in the resolver's order.
TcpConnectResult connectTcp(const std::string& host, int port, const ConnectLimits& limits = {});

// Runs the client handshake of `ssl` over the connected `socket`, which the
// caller keeps owning.
ConnectFailure handshakeTls(SSL& ssl, int socket, const ConnectLimits& limits = {});

// What connectTls sets on the TLS object it makes from the caller's context.
struct TlsSetup {
    std::string serverName;            // sent as server name indication when not empty
    int verifyMode = SSL_VERIFY_PEER;  // SSL_VERIFY_NONE when only collecting
};

// A TLS connection that owns its TLS object and the socket under it.
class TlsConnection {
public:
    enum class ReadEnd { Data, TimedOut, Closed, Cancelled };
    struct Read {
        ReadEnd end = ReadEnd::Closed;
        int bytes = 0;
    };

    TlsConnection() = default;
    TlsConnection(platform::UniqueFd socket, SslPtr ssl)
        : socket_(std::move(socket)), ssl_(std::move(ssl)) {}

    bool valid() const { return ssl_ != nullptr; }
    SSL* ssl() const { return ssl_.get(); }

    // Reads at most `size` bytes, waiting up to `limit` for the first.
    // Closed covers the peer's close and its alerts.
    Read read(char* buffer, int size, std::chrono::milliseconds limit,
              CancelToken* cancel = nullptr);
    // Writes all `size` bytes within `limit`; Data when they went.
    Read write(const char* buffer, int size, std::chrono::milliseconds limit,
               CancelToken* cancel = nullptr);

private:
    // Repeats `op` (an SSL_read or SSL_write) until it moves bytes, fails or
    // runs out of time.
    template <class Op>
    Read pump(Op op, std::chrono::milliseconds limit, CancelToken* cancel);

    platform::UniqueFd socket_;
    SslPtr ssl_;  // declared last: freed before its socket closes
};

struct TlsConnectResult {
    TlsConnection connection;  // valid unless `failure`
    ConnectFailure failure;
};

// connectTcp, then a handshake with a TLS object made from `ctx` and `setup`.
TlsConnectResult connectTls(const std::string& host, int port, SSL_CTX& ctx, const TlsSetup& setup,
                            const ConnectLimits& limits = {});

}  // namespace ndpx::net
