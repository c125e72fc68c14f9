#include "AgentTrust.h"

#include <certs/linux/OpenSslCertStore.h>
#include <platform/Paths.h>

#include <stdexcept>

namespace ndpx::devcloud {

std::string trustCa(const std::filesystem::path& agentRoot, const devca::CertificateAuthority& ca) {
    platform::paths::setRoot(std::filesystem::absolute(agentRoot));
    certs::OpenSslCertStore store;
    if (!store.ImportCertificateToStore(ca.certPem(), "Root", kTrustedCaName, {}, "", nullptr)) {
        throw std::runtime_error("devcloud: cannot add the CA to store Root of " +
                                 store.databaseFile());
    }
    // The store certctl add-crl uses.
    if (!store.AddCrl("CA", ca.crlPem())) {
        throw std::runtime_error("devcloud: cannot add the CA's CRL to " + store.databaseFile());
    }
    return store.databaseFile();
}

}  // namespace ndpx::devcloud
