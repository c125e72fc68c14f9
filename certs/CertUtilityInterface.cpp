#include "certs/CertUtilityInterface.h"

namespace ndpx::certs {

const CertContext* CertChain::endCertificate() const {
    if (simpleChains.empty() || simpleChains.front().elements.empty()) {
        return nullptr;
    }
    return &simpleChains.front().elements.front().context;
}

}  // namespace ndpx::certs
