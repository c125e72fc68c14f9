#pragma once
// Owners of the OpenSSL objects the network helpers use.

#include "certs/OpenSslUtil.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>
#include <string>
#include <vector>

namespace ndpx::net {

struct SslFree {
    void operator()(SSL* p) const { SSL_free(p); }
};
struct SslCtxFree {
    void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};

// Certificates and their containers are owned the way the certificate layer
// owns them, so they pass between the two without conversion.
using certs::BioPtr;
using certs::shareX509;
using certs::X509Ptr;
using certs::X509StackPtr;
using SslPtr = std::unique_ptr<SSL, SslFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

}  // namespace ndpx::net
