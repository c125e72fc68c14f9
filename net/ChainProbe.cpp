#include "net/ChainProbe.h"

#include "net/CurlUtil.h"
#include "net/Handles.h"
#include "net/TlsConnect.h"

#include <mfw/moduleLog.h>
#include <platform/UniqueFd.h>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>

namespace ndpx::net {

namespace {

using platform::UniqueFd;

constexpr std::size_t kMaxChainLength = 10;

}  // namespace

SSLHandler::SSLHandler(std::chrono::milliseconds timeout, CancelToken* cancel)
    : timeout_(timeout), cancel_(cancel) {}

ConnectLimits SSLHandler::limits() const {
    return {timeout_, timeout_, cancel_};
}

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
    TcpConnectResult tcp = connectTcp(parsed->host, parsed->port, limits());
    if (tcp.failure.step == ConnectStep::Resolve) {
        MFW_LOG(4, "SSLHandler::ConnectToServer(): getaddrinfo failed with error: %s",
                tcp.failure.reason.c_str());
        return UniqueFd();
    }
    if (tcp.failure) {
        MFW_LOG(4, "SSLHandler::ConnectToServer(): Failed to connect to hostname: %s, port: %s",
                parsed->host.c_str(), port.c_str());
        return UniqueFd();
    }
    MFW_LOG(1, "SSLHandler::ConnectToServer(): Connected to host: %s, port: %s",
            parsed->host.c_str(), port.c_str());
    return std::move(tcp.socket);
}

bool SSLHandler::SSLConnect(SSL* ssl, int fd) {
    ConnectFailure failure;
    if (ssl == nullptr) {
        failure.step = ConnectStep::Setup;
    } else {
        failure = handshakeTls(*ssl, fd, limits());
    }
    if (failure.step == ConnectStep::Setup) {
        MFW_LOG(4, "SSLHandler::SSLConnect(): SSL_set_fd failed");
        return false;
    }
    if (failure) {
        MFW_LOG(4, "SSLHandler::SSLConnect(): SSL_connect failed with SSL_get_error code: %d",
                failure.sslError);
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
