#include "certs/CertUtilityInterface.h"

namespace ndpx::certs {

X509Ptr shareX509(X509* cert) {
    if (cert == nullptr || X509_up_ref(cert) != 1) {
        return nullptr;
    }
    return X509Ptr(cert);
}

CertContext::CertContext(const CertContext& other)
    : cert(shareX509(other.cert.get())),
      store(other.store),
      friendlyName(other.friendlyName),
      keyContainer(other.keyContainer),
      id(other.id) {}

CertContext& CertContext::operator=(const CertContext& other) {
    if (this != &other) {
        cert = shareX509(other.cert.get());
        store = other.store;
        friendlyName = other.friendlyName;
        keyContainer = other.keyContainer;
        id = other.id;
    }
    return *this;
}

const CertContext* CertChain::endCertificate() const {
    if (simpleChains.empty() || simpleChains.front().elements.empty()) {
        return nullptr;
    }
    return &simpleChains.front().elements.front().context;
}

}  // namespace ndpx::certs
