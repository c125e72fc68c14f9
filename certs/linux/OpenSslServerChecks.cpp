// OpenSslCertStore's checks of built chains: the SSL server policy and
// revocation, with CRLs fetched from distribution points when none is held.

#include "StoreInternals.h"
#include "certs/linux/OpenSslCertStore.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <strings.h>

namespace ndpx::certs {

namespace {

// Server authentication, or one of the two server-gated-crypto purposes; a
// certificate without extended key usage is good for any.
bool validForServerAuth(X509* cert) {
    if ((X509_get_extension_flags(cert) & EXFLAG_XKUSAGE) == 0) {
        return true;
    }
    return (X509_get_extended_key_usage(cert) & (XKU_SSL_SERVER | XKU_SGC | XKU_ANYEKU)) != 0;
}

// The http URLs of a certificate's CRL distribution points.
std::vector<std::string> crlUrlsOf(X509* cert) {
    std::vector<std::string> urls;
    auto* points = static_cast<STACK_OF(DIST_POINT)*>(
        X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr));
    for (int i = 0; points != nullptr && i < sk_DIST_POINT_num(points); ++i) {
        const DIST_POINT* point = sk_DIST_POINT_value(points, i);
        if (point->distpoint == nullptr || point->distpoint->type != 0) {
            continue;  // a relative name, not a list of locations
        }
        const GENERAL_NAMES* names = point->distpoint->name.fullname;
        for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
            const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, j);
            if (name->type != GEN_URI) {
                continue;
            }
            const ASN1_IA5STRING* uri = name->d.uniformResourceIdentifier;
            std::string url(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                            static_cast<std::size_t>(ASN1_STRING_length(uri)));
            // CRLs are signed, so plain http is what publishers use; other
            // schemes (ldap, file) are not followed.
            if (strncasecmp(url.c_str(), "http://", 7) == 0) {
                urls.push_back(std::move(url));
            }
        }
    }
    sk_DIST_POINT_pop_free(points, DIST_POINT_free);
    ERR_clear_error();
    return urls;
}

// A fetched CRL in PEM or DER.
CrlPtr parseCrl(const std::string& data) {
    if (data.find("-----BEGIN X509 CRL-----") != std::string::npos) {
        return crlFromPem(data);
    }
    return crlFromDer(std::vector<std::uint8_t>(data.begin(), data.end()));
}

}  // namespace

bool OpenSslCertStore::VerifyCertChain(const CertChain* chain, const std::string& serverName,
                                       bool ignoreUntrustedRoot, bool ignoreName,
                                       std::uint32_t& policyStatus) {
    policyStatus = policy::kTrustFailure;
    const CertContext* end = chain != nullptr ? chain->endCertificate() : nullptr;
    if (end == nullptr || x509Of(*end) == nullptr) {
        MFW_LOG(4,
                "OpenSslCertStore::VerifyCertChain(): CertVerifyCertificateChainPolicy Error: %s",
                "no chain");
        return false;
    }
    const std::uint32_t status = chain->simpleChains.front().errorStatus;
    X509* leaf = x509Of(*end);
    // A chain that stops below any root is as unknown as one that ends in
    // an untrusted root: both are the unknown-CA case a caller may accept.
    const std::uint32_t unknownCa = trust::kUntrustedRoot | trust::kPartialChain;
    if ((status & trust::kNotSignatureValid) != 0) {
        policyStatus = policy::kBadSignature;
    } else if ((status & trust::kRevoked) != 0) {
        policyStatus = policy::kRevoked;
    } else if ((status & unknownCa) != 0 && !ignoreUntrustedRoot) {
        policyStatus = policy::kUntrustedRoot;
    } else if ((status & trust::kNotTimeValid) != 0) {
        policyStatus = policy::kExpired;
    } else if ((status & trust::kInvalidBasicConstraints) != 0) {
        policyStatus = policy::kBadBasicConstraints;
    } else if ((status & (trust::kNotValidForUsage | trust::kInvalidExtension)) != 0 ||
               X509_check_purpose(leaf, X509_PURPOSE_SSL_SERVER, 0) != 1) {
        policyStatus =
            (status & trust::kInvalidExtension) != 0 ? policy::kTrustFailure : policy::kWrongUsage;
    } else if (!ignoreName && !serverName.empty()) {
        int match = X509_check_ip_asc(leaf, serverName.c_str(), 0);
        if (match < 0) {  // not an IP address: a DNS name
            match = X509_check_host(leaf, serverName.c_str(), serverName.size(), 0, nullptr);
        }
        policyStatus = match == 1 ? policy::kOk : policy::kCnNoMatch;
    } else {
        policyStatus = policy::kOk;
    }
    ERR_clear_error();
    return true;
}

bool OpenSslCertStore::VerifyCertRevocation(const CertContext* cert,
                                            const std::vector<std::string>& crlPems,
                                            std::uint32_t& errorStatus, std::uint32_t& infoStatus) {
    errorStatus = 0;
    infoStatus = 0;
    if (cert == nullptr || x509Of(*cert) == nullptr) {
        MFW_LOG(4,
                "OpenSslCertStore::VerifyCertRevocation(): CertGetCertificateChain with revocation "
                "failed: 0x%x %s",
                0u, "no certificate");
        return false;
    }
    std::vector<CrlPtr> crls;
    auto db = openCertDatabase(options_.databaseFile, "VerifyCertRevocation");
    const auto stored = db ? db->crls() : std::nullopt;
    for (const auto& der : stored ? *stored : std::vector<Bytes>{}) {
        if (CrlPtr crl = crlFromDer(der)) {
            crls.push_back(std::move(crl));
        }
    }
    for (const auto& pem : crlPems) {
        CrlPtr crl = crlFromPem(pem);
        if (!crl) {
            MFW_LOG(4,
                    "OpenSslCertStore::VerifyCertRevocation(): CertGetCertificateChain with "
                    "revocation failed: 0x%x %s",
                    0u, "unreadable CRL");
            return false;
        }
        crls.push_back(std::move(crl));
    }
    // A certificate that came with its own in-memory store (a server's, with
    // the intermediates it sent) finds its issuers there.
    const CertStorePtr issuers =
        cert->store && cert->store->inMemory() ? cert->store : OpenMemoryStore();
    std::string error;
    CertChainPtr chain = impl_->buildChain(options_, *cert, issuers, &crls, error);
    if (!chain) {
        MFW_LOG(4,
                "OpenSslCertStore::VerifyCertRevocation(): CertGetCertificateChain with revocation "
                "failed: 0x%x %s",
                0u, error.c_str());
        return false;
    }
    if (chain->simpleChains.empty() || chain->simpleChains.front().elements.empty()) {
        MFW_LOG(4, "OpenSslCertStore::VerifyCertRevocation(): Unable to find first simple chain");
        return false;
    }
    if (options_.crlFetcher && fetchMissingCrls(*chain, crls)) {
        CertChainPtr again = impl_->buildChain(options_, *cert, issuers, &crls, error);
        if (again && !again->simpleChains.empty() &&
            !again->simpleChains.front().elements.empty()) {
            chain = std::move(again);
        }
    }
    SimpleChain& first = chain->simpleChains.front();
    if (!validForServerAuth(x509Of(*cert))) {
        first.elements.front().errorStatus |= trust::kNotValidForUsage;
        first.errorStatus |= trust::kNotValidForUsage;
    }
    errorStatus = first.errorStatus;
    infoStatus = first.infoStatus;
    return true;
}

bool OpenSslCertStore::fetchMissingCrls(const CertChain& chain, std::vector<CrlPtr>& crls) {
    bool fetched = false;
    for (const auto& element : chain.simpleChains.front().elements) {
        X509* cert = x509Of(element.context);
        if ((element.errorStatus & trust::kRevocationStatusUnknown) == 0 || cert == nullptr) {
            continue;
        }
        for (const auto& url : crlUrlsOf(cert)) {
            std::string data;
            std::string error;
            CrlPtr crl;
            if (!options_.crlFetcher(url, data, error)) {
                MFW_LOG(3,
                        "OpenSslCertStore::VerifyCertRevocation(): Unable to fetch CRL from %s: %s",
                        url.c_str(), error.c_str());
                continue;
            }
            if (!(crl = parseCrl(data))) {
                MFW_LOG(3, "OpenSslCertStore::VerifyCertRevocation(): No CRL at %s", url.c_str());
                continue;
            }
            MFW_LOG(1, "OpenSslCertStore::VerifyCertRevocation(): Fetched CRL from %s",
                    url.c_str());
            // Kept for later checks; the signature is checked when it is used.
            auto db = openCertDatabase(options_.databaseFile, "VerifyCertRevocation");
            if (!db || !db->putCrl(kCaStoreName, crlToDer(crl.get()))) {
                MFW_LOG(3,
                        "OpenSslCertStore::VerifyCertRevocation(): Unable to keep the CRL from %s",
                        url.c_str());
            }
            crls.push_back(std::move(crl));
            fetched = true;
            break;
        }
    }
    return fetched;
}

}  // namespace ndpx::certs
