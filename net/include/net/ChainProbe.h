#pragma once
// Fetches the certificate chain an HTTPS server presents, over a TLS
// connection of its own. The probe only collects: its handshake verifies
// nothing (no trust store, no name, no server name indication), so a server
// with a self-signed or unknown chain still yields what it sent. Judging the
// chain is the caller's business.
//
// The HTTPS client does not need it on Linux (its handshake hands over the
// chain the server sent); it serves diagnostics and tools.

#include "net/CancelToken.h"
#include "net/Handles.h"

#include <platform/UniqueFd.h>

#include <chrono>
#include <string>
#include <vector>

namespace ndpx::net {

struct ConnectLimits;

class SSLHandler {
public:
    // Each of connect and handshake may take up to `timeout`; `cancel`, when
    // given, ends either at once.
    explicit SSLHandler(std::chrono::milliseconds timeout = std::chrono::seconds(30),
                        CancelToken* cancel = nullptr);

    // The certificates the server at `url` sent (end certificate first, in
    // the server's order) as PEM texts.
    bool GetCertChainStr(const std::string& url, std::vector<std::string>& pems);

    // The chain of `serverCert` built from the probed certificates: the
    // server certificate first, then each issuer found among them. Nothing in
    // it is trusted.
    bool GetCertChainCtx(const std::string& url, X509* serverCert,
                         std::vector<std::string>& chainPems);

    // A TCP connection to the URL's host and port, trying every resolved
    // address in order; invalid when none accepts.
    platform::UniqueFd ConnectToServer(const std::string& url);
    // The client handshake over `fd`.
    bool SSLConnect(SSL* ssl, int fd);
    // The peer's chain as PEM texts.
    bool GetServerCertChain(SSL* ssl, std::vector<std::string>& pems);

private:
    ConnectLimits limits() const;

    std::chrono::milliseconds timeout_;
    CancelToken* cancel_;
};

}  // namespace ndpx::net
