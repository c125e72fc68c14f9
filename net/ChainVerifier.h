#pragma once
// Server certificate chain checks with OpenSSL's verifier: the chain a TLS
// server sent is built towards the machine's trusted roots and judged by the
// SSL server policy (trust, usage, validity, name), optionally checked for
// revocation against CRL files. Statuses use the platform-neutral codes the
// certificate layer reports, so log lines read the same on every platform.

#include "net/Handles.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::net {

inline constexpr const char* kMachineRootsFile = "/etc/ssl/certs/ca-certificates.crt";

struct TrustSettings {
    // PEM bundle of the trusted root certificates.
    std::string rootsFile = kMachineRootsFile;
    // CRLs (PEM, several per file allowed, or DER) for revocation checks.
    std::vector<std::string> crlFiles;
};

// Outcome of the SSL server policy.
namespace policy {
inline constexpr std::uint32_t kOk = 0;
inline constexpr std::uint32_t kExpired = 0x800B0101;
inline constexpr std::uint32_t kUntrustedRoot = 0x800B0109;
inline constexpr std::uint32_t kTrustFailure = 0x800B010B;
inline constexpr std::uint32_t kCnNoMatch = 0x800B010F;
inline constexpr std::uint32_t kWrongUsage = 0x800B0110;
inline constexpr std::uint32_t kRevoked = 0x80092010;
inline constexpr std::uint32_t kBadSignature = 0x80096004;
inline constexpr std::uint32_t kBadBasicConstraints = 0x80096019;
}  // namespace policy

// Error status bits of a revocation check.
namespace trust {
inline constexpr std::uint32_t kNotTimeValid = 0x00000001;
inline constexpr std::uint32_t kRevoked = 0x00000004;
inline constexpr std::uint32_t kNotSignatureValid = 0x00000008;
inline constexpr std::uint32_t kNotValidForUsage = 0x00000010;
inline constexpr std::uint32_t kUntrustedRoot = 0x00000020;
inline constexpr std::uint32_t kRevocationStatusUnknown = 0x00000040;
inline constexpr std::uint32_t kInvalidExtension = 0x00000100;
inline constexpr std::uint32_t kInvalidBasicConstraints = 0x00000400;
inline constexpr std::uint32_t kPartialChain = 0x00010000;
inline constexpr std::uint32_t kOfflineRevocation = 0x01000000;
}  // namespace trust

// What one evaluation of a chain found.
class ChainCheck {
public:
    // Problem classes found anywhere in the chain.
    enum Problem : unsigned {
        kUntrusted = 1u << 0,  // unknown or untrusted root, incomplete chain
        kName = 1u << 1,       // host name not in the leaf
        kTime = 1u << 2,       // expired or not yet valid
        kUsage = 1u << 3,      // not for server authentication
        kConstraints = 1u << 4,
        kSignature = 1u << 5,
        kOther = 1u << 6,
    };

    // The policy status when an unknown root and/or a name mismatch are
    // tolerated.
    std::uint32_t policyStatus(bool ignoreUntrustedRoot, bool ignoreName) const;
    unsigned problems() const { return problems_; }
    // The chain as built, end certificate first (up to the root when found).
    const std::vector<X509Ptr>& chain() const { return chain_; }
    // OpenSSL's texts of the errors, for diagnostics.
    const std::vector<std::string>& errorTexts() const { return errorTexts_; }

private:
    friend class ChainVerifier;
    unsigned problems_ = 0;
    std::vector<X509Ptr> chain_;
    std::vector<std::string> errorTexts_;
};

class ChainVerifier {
public:
    explicit ChainVerifier(TrustSettings settings);

    // Builds and judges the chain of `leaf` with `untrusted` (the certificates
    // the server sent, and any extra ones) as candidate issuers. serverName is
    // a DNS name or an IP address; empty skips the name check. nullopt when
    // the check could not be made. Unreadable roots leave nothing trusted.
    std::optional<ChainCheck> check(X509* leaf, STACK_OF(X509) * untrusted,
                                    const std::string& serverName) const;

    // Builds the chain again checking every certificate below the root
    // against the configured CRLs. False when the check could not be made;
    // otherwise errorStatus holds trust::k* bits (0: not revoked).
    bool checkRevocation(X509* leaf, STACK_OF(X509) * untrusted, std::uint32_t& errorStatus,
                         std::uint32_t& infoStatus) const;

    const TrustSettings& settings() const { return settings_; }

private:
    X509StorePtr makeStore(bool withCrls) const;

    TrustSettings settings_;
};

// The PEM text of a certificate: "-----BEGIN CERTIFICATE-----", base64 in
// lines of 64 characters, "-----END CERTIFICATE-----", each line ending in
// "\n". Empty on failure.
std::string certificateToPem(X509* cert);
// Every certificate in a PEM text, in order; unreadable blocks are skipped.
std::vector<X509Ptr> certificatesFromPem(const std::string& pem);
// SHA-256 of the PEM text as upper-case hex pairs joined by ':' (95
// characters); empty on failure. This is what a pinned thumbprint is.
std::string pemThumbprint(const std::string& pem);

}  // namespace ndpx::net
