#include "net/ChainProbe.h"

#include "net/CurlUtil.h"
#include "net/Handles.h"

#include <mfw/moduleLog.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>

namespace ndpx::net {

namespace {

using platform::UniqueFd;

constexpr std::size_t kMaxChainLength = 10;

// Connects with a limit on the wait, then bounds every later read and write
// on the socket by the same limit (the handshake).
bool connectWithin(int fd, const sockaddr* addr, socklen_t len, std::chrono::milliseconds limit) {
    const int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return false;
    }
    if (::connect(fd, addr, len) != 0) {
        if (errno != EINPROGRESS) {
            return false;
        }
        pollfd pfd{fd, POLLOUT, 0};
        int rc;
        do {
            rc = ::poll(&pfd, 1, static_cast<int>(limit.count()));
        } while (rc < 0 && errno == EINTR);
        int error = 0;
        socklen_t errorLen = sizeof error;
        if (rc <= 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &errorLen) != 0 ||
            error != 0) {
            return false;
        }
    }
    if (::fcntl(fd, F_SETFL, flags) != 0) {
        return false;
    }
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(limit.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((limit.count() % 1000) * 1000);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    return true;
}

}  // namespace

SSLHandler::SSLHandler(std::chrono::milliseconds timeout) : timeout_(timeout) {}

bool SSLHandler::GetCertChainStr(const std::string& url, std::vector<std::string>& pems) {
    pems.clear();
    SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx) {
        ERR_clear_error();
        MFW_LOG(4, "SSLHandler::GetCertChainStr(): Failed to initialize SSL context");
        return false;
    }
    // Collect whatever the server presents: trust is decided by the caller.
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_NONE, nullptr);
    SslPtr ssl(SSL_new(ctx.get()));
    if (!ssl) {
        ERR_clear_error();
        MFW_LOG(4, "SSLHandler::GetCertChainStr(): Failed to initialize SSL object");
        return false;
    }
    UniqueFd fd = ConnectToServer(url);
    if (!fd) {
        MFW_LOG(4, "SSLHandler::GetCertChainStr(): Failed to connect to server");
        return false;
    }
    if (!SSLConnect(ssl.get(), fd.get())) {
        MFW_LOG(4, "SSLHandler::GetCertChainStr(): Failed to connect via SSL");
        return false;
    }
    const bool ok = GetServerCertChain(ssl.get(), pems);
    if (!ok) {
        MFW_LOG(4, "SSLHandler::GetCertChainStr(): Failed get server cert chain");
    }
    SSL_shutdown(ssl.get());
    ERR_clear_error();
    return ok;
}

bool SSLHandler::GetCertChainCtx(const std::string& url, X509* serverCert,
                                 std::vector<std::string>& chainPems) {
    chainPems.clear();
    std::vector<std::string> pems;
    if (!GetCertChainStr(url, pems)) {
        MFW_LOG(4, "SSLHandler::GetCertChainCtx(): Failed to retrieve server certificate chain");
        return false;
    }
    std::vector<X509Ptr> probed;
    for (const auto& pem : pems) {
        auto parsed = certs::x509sFromPemBundle(pem);
        if (parsed.empty()) {
            MFW_LOG(4, "SSLHandler::GetCertChainCtx(): Failed to import to certificate to store");
            continue;
        }
        for (auto& cert : parsed) {
            probed.push_back(std::move(cert));
        }
    }
    if (serverCert == nullptr) {
        MFW_LOG(4, "SSLHandler::GetCertChainCtx(): CertGetCertificateChain failed with error: %s",
                "no server certificate");
        return false;
    }
    std::vector<X509*> chain{serverCert};
    while (chain.size() < kMaxChainLength) {
        X509* current = chain.back();
        if (X509_check_issued(current, current) == X509_V_OK) {
            break;  // self-issued: the top of the chain
        }
        const auto issuer = std::find_if(probed.begin(), probed.end(), [&](const X509Ptr& c) {
            return std::find(chain.begin(), chain.end(), c.get()) == chain.end() &&
                   X509_cmp(c.get(), current) != 0 &&
                   X509_check_issued(c.get(), current) == X509_V_OK;
        });
        if (issuer == probed.end()) {
            break;
        }
        chain.push_back(issuer->get());
    }
    for (X509* cert : chain) {
        chainPems.push_back(certs::x509ToPem(cert));
    }
    return true;
}

UniqueFd SSLHandler::ConnectToServer(const std::string& url) {
    const auto parsed = parseUrl(url);
    if (!parsed || parsed->host.empty() || parsed->port == 0) {
        MFW_LOG(4, "SSLHandler::ConnectToServer(): Unable to parse full URL");
        return UniqueFd();
    }
    const std::string port = std::to_string(parsed->port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* res = nullptr;
    const int rc = ::getaddrinfo(parsed->host.c_str(), port.c_str(), &hints, &res);
    if (rc != 0) {
        MFW_LOG(4, "SSLHandler::ConnectToServer(): getaddrinfo failed with error: %s",
                ::gai_strerror(rc));
        return UniqueFd();
    }
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> list(res, ::freeaddrinfo);
    for (addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        UniqueFd fd(::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol));
        if (!fd) {
            continue;
        }
        if (connectWithin(fd.get(), ai->ai_addr, ai->ai_addrlen, timeout_)) {
            MFW_LOG(1, "SSLHandler::ConnectToServer(): Connected to host: %s, port: %s",
                    parsed->host.c_str(), port.c_str());
            return fd;
        }
    }
    MFW_LOG(4, "SSLHandler::ConnectToServer(): Failed to connect to hostname: %s, port: %s",
            parsed->host.c_str(), port.c_str());
    return UniqueFd();
}

bool SSLHandler::SSLConnect(SSL* ssl, int fd) {
    if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1) {
        ERR_clear_error();
        MFW_LOG(4, "SSLHandler::SSLConnect(): SSL_set_fd failed");
        return false;
    }
    const int rc = SSL_connect(ssl);
    if (rc != 1) {
        const int error = SSL_get_error(ssl, rc);
        ERR_clear_error();
        MFW_LOG(4, "SSLHandler::SSLConnect(): SSL_connect failed with SSL_get_error code: %d",
                error);
        return false;
    }
    MFW_LOG(1, "SSLHandler::SSLConnect(): Connected via SSL to the server");
    return true;
}

bool SSLHandler::GetServerCertChain(SSL* ssl, std::vector<std::string>& pems) {
    pems.clear();
    if (ssl == nullptr) {
        MFW_LOG(4, "SSLHandler::GetServerCertChain(): SSL object has not been initialized");
        return false;
    }
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl);
    if (chain == nullptr) {
        MFW_LOG(4,
                "SSLHandler::GetServerCertChain(): SSL_get_peer_cert_chain failed to get server "
                "certificates");
        return false;
    }
    const int count = sk_X509_num(chain);
    MFW_LOG(1, "SSLHandler::GetServerCertChain(): Retrieved %d certificates from the server",
            count);
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        MFW_LOG(4, "SSLHandler::GetServerCertChain(): Failed to allocate BIO");
        return false;
    }
    for (int i = 0; i < count; ++i) {
        if (PEM_write_bio_X509(bio.get(), sk_X509_value(chain, i)) != 1) {
            ERR_clear_error();
            MFW_LOG(4,
                    "SSLHandler::GetServerCertChain(): PEM_write_bio_X509 failed to write cert to "
                    "BIO");
            return false;
        }
        const auto pending = BIO_ctrl_pending(bio.get());
        std::string pem(pending, '\0');
        if (pending == 0 || BIO_read(bio.get(), pem.data(), static_cast<int>(pending)) !=
                                static_cast<int>(pending)) {
            MFW_LOG(4, "SSLHandler::GetServerCertChain(): Failed to read certificate to certBlob");
            return false;
        }
        pems.push_back(std::move(pem));
    }
    return true;
}

}  // namespace ndpx::net
