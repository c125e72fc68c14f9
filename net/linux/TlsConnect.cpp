#include "net/TlsConnect.h"

#include <platform/TimeSource.h>

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <system_error>

namespace ndpx::net {
namespace {

using Clock = std::chrono::steady_clock;

enum class WaitEnd { Ready, TimedOut, Cancelled };

// Waits on one socket at a time; a cancel token wakes the wait through an
// event descriptor instead of leaving it to its time limit.
class SocketWaiter {
public:
    explicit SocketWaiter(CancelToken* cancel) : cancel_(cancel) {
        if (cancel_ != nullptr) {
            wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            waker_.emplace(cancel_, [fd = wake_.get()] {
                const std::uint64_t one = 1;
                [[maybe_unused]] const auto n = ::write(fd, &one, sizeof one);
            });
        }
    }

    WaitEnd wait(int fd, short events, Clock::time_point deadline) const {
        for (;;) {
            if (cancelled()) {
                return WaitEnd::Cancelled;
            }
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) {
                return WaitEnd::TimedOut;
            }
            // Long bounds are waited for in slices poll can take.
            const int slice = static_cast<int>(std::min<std::int64_t>(left, INT_MAX));
            // poll skips a negative descriptor: without a token only `fd` counts.
            pollfd fds[2] = {{fd, events, 0}, {wake_.get(), POLLIN, 0}};
            const int n = ::poll(fds, 2, slice);
            if (n < 0 && errno != EINTR) {
                return WaitEnd::TimedOut;
            }
            if (n > 0 && fds[0].revents != 0 && !cancelled()) {
                return WaitEnd::Ready;
            }
        }
    }

    bool cancelled() const { return cancel_ != nullptr && cancel_->cancelled(); }

private:
    CancelToken* cancel_;
    platform::UniqueFd wake_;
    std::optional<CancelToken::Waker> waker_;  // last: unregistered before wake_ closes
};

struct AddrInfoFree {
    void operator()(addrinfo* p) const { ::freeaddrinfo(p); }
};

// The TLS library's account of the last failure, or a plain one.
std::string tlsErrorText(const char* fallback) {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) {
        return fallback;
    }
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

ConnectFailure failed(ConnectStep step, std::string reason, bool cancelled = false) {
    ConnectFailure failure;
    failure.step = step;
    failure.reason = cancelled ? "cancelled" : std::move(reason);
    failure.cancelled = cancelled;
    return failure;
}

}  // namespace

TcpConnectResult connectTcp(const std::string& host, int port, const ConnectLimits& limits) {
    TcpConnectResult result;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* raw = nullptr;
    const int rc = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &raw);
    if (rc != 0) {
        result.failure = failed(ConnectStep::Resolve, ::gai_strerror(rc));
        return result;
    }
    const std::unique_ptr<addrinfo, AddrInfoFree> list(raw);
    const SocketWaiter waiter(limits.cancel);
    std::string lastError = "no address";
    for (const addrinfo* a = list.get(); a != nullptr; a = a->ai_next) {
        platform::UniqueFd fd(
            ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol));
        if (!fd) {
            lastError = std::generic_category().message(errno);
            continue;
        }
        if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0) {
            if (errno != EINPROGRESS) {
                lastError = std::generic_category().message(errno);
                continue;
            }
            const WaitEnd end = waiter.wait(fd.get(), POLLOUT,
                                            platform::deadlineAfter(Clock::now(), limits.connect));
            if (end == WaitEnd::Cancelled) {
                result.failure = failed(ConnectStep::Connect, {}, true);
                return result;
            }
            if (end == WaitEnd::TimedOut) {
                lastError = "timed out";
                continue;
            }
            int error = 0;
            socklen_t len = sizeof error;
            if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0) {
                lastError = std::generic_category().message(error != 0 ? error : errno);
                continue;
            }
        }
        result.socket = std::move(fd);
        return result;
    }
    result.failure = failed(ConnectStep::Connect, lastError);
    return result;
}

ConnectFailure handshakeTls(SSL& ssl, int socket, const ConnectLimits& limits) {
    // SSL_get_error reads this thread's error queue: nothing stale may be in it.
    ERR_clear_error();
    if (SSL_set_fd(&ssl, socket) != 1) {
        return failed(ConnectStep::Setup, tlsErrorText("SSL_set_fd failed"));
    }
    const SocketWaiter waiter(limits.cancel);
    const auto deadline = platform::deadlineAfter(Clock::now(), limits.handshake);
    for (;;) {
        const int rc = SSL_connect(&ssl);
        if (rc == 1) {
            return {};
        }
        const int error = SSL_get_error(&ssl, rc);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
            const WaitEnd end =
                waiter.wait(socket, error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline);
            if (end == WaitEnd::Ready) {
                continue;
            }
            ConnectFailure failure =
                failed(ConnectStep::Handshake, "timed out", end == WaitEnd::Cancelled);
            failure.sslError = error;
            return failure;
        }
        ConnectFailure failure =
            failed(ConnectStep::Handshake, tlsErrorText("the peer closed the connection"));
        failure.sslError = error;
        return failure;
    }
}

TlsConnectResult connectTls(const std::string& host, int port, SSL_CTX& ctx, const TlsSetup& setup,
                            const ConnectLimits& limits) {
    TlsConnectResult result;
    TcpConnectResult tcp = connectTcp(host, port, limits);
    if (tcp.failure) {
        result.failure = std::move(tcp.failure);
        return result;
    }
    SslPtr ssl(SSL_new(&ctx));
    if (!ssl || (!setup.serverName.empty() &&
                 SSL_set_tlsext_host_name(ssl.get(), setup.serverName.c_str()) != 1)) {
        result.failure = failed(ConnectStep::Setup, tlsErrorText("no TLS object"));
        return result;
    }
    SSL_set_verify(ssl.get(), setup.verifyMode, nullptr);
    result.failure = handshakeTls(*ssl, tcp.socket.get(), limits);
    if (!result.failure) {
        result.connection = TlsConnection(std::move(tcp.socket), std::move(ssl));
    }
    return result;
}

template <class Op>
TlsConnection::Read TlsConnection::pump(Op op, std::chrono::milliseconds limit,
                                        CancelToken* cancel) {
    if (!ssl_) {
        return {ReadEnd::Closed, 0};
    }
    ERR_clear_error();
    const SocketWaiter waiter(cancel);
    const auto deadline = platform::deadlineAfter(Clock::now(), limit);
    for (;;) {
        const int rc = op();
        if (rc > 0) {
            return {ReadEnd::Data, rc};
        }
        const int error = SSL_get_error(ssl_.get(), rc);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
            ERR_clear_error();
            return {ReadEnd::Closed, 0};
        }
        switch (
            waiter.wait(socket_.get(), error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline)) {
            case WaitEnd::Ready:
                continue;
            case WaitEnd::TimedOut:
                return {ReadEnd::TimedOut, 0};
            case WaitEnd::Cancelled:
                return {ReadEnd::Cancelled, 0};
        }
    }
}

TlsConnection::Read TlsConnection::read(char* buffer, int size, std::chrono::milliseconds limit,
                                        CancelToken* cancel) {
    return pump([&] { return SSL_read(ssl_.get(), buffer, size); }, limit, cancel);
}

TlsConnection::Read TlsConnection::write(const char* buffer, int size,
                                         std::chrono::milliseconds limit, CancelToken* cancel) {
    // Without partial writes a successful SSL_write moved all the bytes.
    return pump([&] { return SSL_write(ssl_.get(), buffer, size); }, limit, cancel);
}

}  // namespace ndpx::net
