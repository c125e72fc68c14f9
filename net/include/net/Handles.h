#pragma once
// Owners of the OpenSSL objects and file descriptors the network helpers use.

#include "certs/OpenSslUtil.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
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

// A file descriptor closed when its owner goes.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace ndpx::net
