#pragma once
// Makes a desktop trust the devcloud CA as an operator does with certctl:
// the CA certificate in the "Root" store of the agent's certificate store,
// and the CA's CRL beside it, since the agent checks revocation by default.
// Without them an agent whose service pin is gone (after pairing) refuses
// the credential service's certificate, and renewal fails.

#include "devca/DevCa.h"

#include <filesystem>
#include <string>

namespace ndpx::devcloud {

// The friendly name the CA is stored under (certctl show/delete find it).
inline constexpr const char* kTrustedCaName = "devcloud CA";

// Adds `ca` and its CRL to the certificate store under `agentRoot`, which
// becomes the process's root prefix (as certctl's --root makes it). The CA
// is kept once however often it is added. The CRL revokes nothing (devcloud
// keeps no list of revocations), and being newer it outweighs a revoking CRL
// of the CA added before. Returns the store's file; throws
// std::runtime_error when the store refuses.
std::string trustCa(const std::filesystem::path& agentRoot, const devca::CertificateAuthority& ca);

}  // namespace ndpx::devcloud
