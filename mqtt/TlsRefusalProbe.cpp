#include "TlsRefusalProbe.h"

#include <platform/UniqueFd.h>

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <fcntl.h>
#include <cerrno>
#include <memory>

namespace ndpx {
namespace {

struct SslCtxFree {
    void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};
struct SslFree {
    void operator()(SSL* p) const { SSL_free(p); }
};
struct AddrFree {
    void operator()(addrinfo* p) const { freeaddrinfo(p); }
};

bool waitFd(int fd, short events, std::chrono::milliseconds limit) {
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, static_cast<int>(limit.count())) > 0;
}

bool connectTcp(const std::string& host, int port, std::chrono::milliseconds limit,
                platform::UniqueFd& s) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &raw) != 0) {
        return false;
    }
    std::unique_ptr<addrinfo, AddrFree> list(raw);
    for (const addrinfo* a = list.get(); a != nullptr; a = a->ai_next) {
        platform::UniqueFd candidate(
            ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol));
        if (!candidate) {
            continue;
        }
        ::fcntl(candidate.get(), F_SETFL, O_NONBLOCK);
        if (::connect(candidate.get(), a->ai_addr, a->ai_addrlen) != 0 && errno != EINPROGRESS) {
            continue;
        }
        int error = 0;
        socklen_t len = sizeof error;
        if (waitFd(candidate.get(), POLLOUT, limit) &&
            ::getsockopt(candidate.get(), SOL_SOCKET, SO_ERROR, &error, &len) == 0 && error == 0) {
            s = std::move(candidate);
            return true;
        }
    }
    return false;
}

}  // namespace

TlsProbeResult probeTls(const std::string& host, int port, const std::string& trustFile,
                        const std::string& certFile, const std::string& keyFile,
                        std::chrono::milliseconds limit) {
    platform::UniqueFd sock;
    if (!connectTcp(host, port, limit, sock)) {
        return TlsProbeResult::Unreachable;
    }
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx || SSL_CTX_load_verify_locations(ctx.get(), trustFile.c_str(), nullptr) != 1 ||
        SSL_CTX_use_certificate_chain_file(ctx.get(), certFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        ERR_clear_error();
        return TlsProbeResult::Refused;  // our own material does not load
    }
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx.get()));
    SSL_set_fd(ssl.get(), sock.get());
    SSL_set_tlsext_host_name(ssl.get(), host.c_str());
    for (;;) {
        const int rc = SSL_connect(ssl.get());
        if (rc == 1) {
            break;
        }
        const int err = SSL_get_error(ssl.get(), rc);
        if ((err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) ||
            !waitFd(sock.get(), err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, limit)) {
            ERR_clear_error();
            return TlsProbeResult::Refused;
        }
    }
    // Under TLS 1.3 the broker judges our certificate after the handshake:
    // its verdict is an alert (or a close) on the first read.
    char byte = 0;
    for (;;) {
        const int rc = SSL_read(ssl.get(), &byte, 1);
        if (rc > 0) {
            return TlsProbeResult::Accepted;
        }
        const int err = SSL_get_error(ssl.get(), rc);
        if (err == SSL_ERROR_WANT_READ) {
            if (!waitFd(sock.get(), POLLIN, limit)) {
                return TlsProbeResult::Accepted;  // silence: the broker waits for CONNECT
            }
            continue;
        }
        ERR_clear_error();
        return TlsProbeResult::Refused;
    }
}

}  // namespace ndpx
