#pragma once
// The OpenSSL form of the store's certificates: how the OpenSSL backend and
// code that works in OpenSSL terms (the HTTPS client's server checks, certctl)
// reach the X509 behind a certificate handle, and make handles of their own.

#include "certs/CertUtilityInterface.h"

#include <openssl/x509.h>

#include <memory>

namespace ndpx::certs {

struct X509Free {
    void operator()(X509* p) const { X509_free(p); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;

// Another owner of `cert` (reference count), or null.
X509Ptr shareX509(X509* cert);

// A handle owning `cert`; null for null.
CertificatePtr certificateOf(X509Ptr cert);
// A handle sharing `cert` (another reference); null for null.
CertificatePtr shareCertificate(X509* cert);

// The X509 behind a handle, owned by the handle; null when there is none or
// the handle is not OpenSSL's.
X509* x509Of(const CertificatePtr& cert);
X509* x509Of(const CertContext& context);

}  // namespace ndpx::certs
