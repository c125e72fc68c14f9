#pragma once
// Owners of the OpenSSL objects and file descriptors the network helpers use.

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

struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};
struct X509CrlFree {
    void operator()(X509_CRL* p) const { X509_CRL_free(p); }
};
struct X509StoreFree {
    void operator()(X509_STORE* p) const { X509_STORE_free(p); }
};
struct X509StoreCtxFree {
    void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
};
struct X509StackFree {
    void operator()(STACK_OF(X509) * p) const { sk_X509_pop_free(p, X509_free); }
};
struct BioFree {
    void operator()(BIO* p) const { BIO_free(p); }
};
struct SslFree {
    void operator()(SSL* p) const { SSL_free(p); }
};
struct SslCtxFree {
    void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
};

using X509Ptr = std::unique_ptr<X509, X509Free>;
using X509CrlPtr = std::unique_ptr<X509_CRL, X509CrlFree>;
using X509StorePtr = std::unique_ptr<X509_STORE, X509StoreFree>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, X509StoreCtxFree>;
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackFree>;
using BioPtr = std::unique_ptr<BIO, BioFree>;
using SslPtr = std::unique_ptr<SSL, SslFree>;
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;

// Another owner of `cert` (reference count), or null.
inline X509Ptr shareX509(X509* cert) {
    if (cert != nullptr) {
        X509_up_ref(cert);
    }
    return X509Ptr(cert);
}

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
