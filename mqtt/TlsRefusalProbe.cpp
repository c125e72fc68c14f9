#include "TlsRefusalProbe.h"

#include "net/Handles.h"
#include "net/TlsConnect.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace ndpx {
namespace {

// The client context with the files the client library uses; null when our
// own material does not load.
net::SslCtxPtr clientContext(const std::string& trustFile, const std::string& certFile,
                             const std::string& keyFile) {
    net::SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx || SSL_CTX_load_verify_locations(ctx.get(), trustFile.c_str(), nullptr) != 1 ||
        SSL_CTX_use_certificate_chain_file(ctx.get(), certFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx.get(), keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    return ctx;
}

// An MQTT 5 CONNECT with clean start, no will and an empty client id, so the
// broker names the probe itself and the desktop's own session is untouched.
constexpr char kProbeConnect[] = {0x10, 0x0d, 0x00, 0x04, 'M',  'Q',  'T', 'T',
                                  0x05, 0x02, 0x00, 0x0a, 0x00, 0x00, 0x00};
constexpr char kDisconnect[] = {static_cast<char>(0xe0), 0x00};

}  // namespace

TlsProbeResult probeTls(const std::string& host, int port, const std::string& trustFile,
                        const std::string& certFile, const std::string& keyFile,
                        net::CancelToken* cancel, std::chrono::milliseconds limit) {
    const net::ConnectLimits limits{limit, limit, cancel};
    const net::SslCtxPtr ctx = clientContext(trustFile, certFile, keyFile);
    if (!ctx) {
        // Material that does not load is refused, once the broker is known to be there.
        return net::connectTcp(host, port, limits).failure ? TlsProbeResult::Unreachable
                                                           : TlsProbeResult::Refused;
    }
    net::TlsSetup setup;
    setup.serverName = host;
    net::TlsConnectResult tls = net::connectTls(host, port, *ctx, setup, limits);
    switch (tls.failure.step) {
        case net::ConnectStep::None:
            break;
        case net::ConnectStep::Resolve:
        case net::ConnectStep::Connect:
            return TlsProbeResult::Unreachable;
        default:
            return TlsProbeResult::Refused;
    }
    // Under TLS 1.3 the broker judges our certificate after the handshake:
    // its verdict is an alert (or a close) on the first read. A CONNECT makes
    // an accepting broker answer at once instead of waiting out the limit;
    // whatever it answers, the certificate got past TLS.
    if (tls.connection.write(kProbeConnect, sizeof kProbeConnect, limit, cancel).end ==
        net::TlsConnection::ReadEnd::Data) {
        char byte = 0;
        switch (tls.connection.read(&byte, 1, limit, cancel).end) {
            case net::TlsConnection::ReadEnd::Data:
                tls.connection.write(kDisconnect, sizeof kDisconnect, limit, cancel);
                return TlsProbeResult::Accepted;
            case net::TlsConnection::ReadEnd::TimedOut:  // silence: not refused either
                return TlsProbeResult::Accepted;
            default:
                break;
        }
    }
    return TlsProbeResult::Refused;
}

}  // namespace ndpx
