// Chains, the machine's trusted roots and the SSL and revocation checks of
// OpenSslCertStore.

#include "StoreInternals.h"
#include "certs/linux/OpenSslCertStore.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <strings.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <sstream>

namespace ndpx::certs {

namespace {

// The trust status bit an OpenSSL verification error stands for.
std::uint32_t trustFlagFor(int error) {
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_CERT_NOT_YET_VALID:
        case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
        case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
            return trust::kNotTimeValid;
        case X509_V_ERR_CERT_REVOKED:
            return trust::kRevoked;
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
        case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
        case X509_V_ERR_EE_KEY_TOO_SMALL:
        case X509_V_ERR_CA_KEY_TOO_SMALL:
        case X509_V_ERR_CA_MD_TOO_WEAK:
            return trust::kNotSignatureValid;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_CERT_UNTRUSTED:
        case X509_V_ERR_CERT_REJECTED:
            return trust::kUntrustedRoot;
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return trust::kPartialChain;
        case X509_V_ERR_INVALID_PURPOSE:
            return trust::kNotValidForUsage;
        case X509_V_ERR_INVALID_CA:
        case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        case X509_V_ERR_INVALID_NON_CA:
            return trust::kInvalidBasicConstraints;
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
        case X509_V_ERR_CRL_HAS_EXPIRED:
        case X509_V_ERR_CRL_NOT_YET_VALID:
        case X509_V_ERR_CRL_SIGNATURE_FAILURE:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
        case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
        case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
        case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
        case X509_V_ERR_DIFFERENT_CRL_SCOPE:
            return trust::kRevocationStatusUnknown | trust::kOfflineRevocation;
        default:
            return trust::kInvalidExtension;
    }
}

// Collects every problem of the chain instead of stopping at the first, so
// that an untrusted or incomplete chain is still built and described.
struct TrustCollector {
    std::map<int, std::uint32_t> flagsByDepth;
    bool revocation = false;
};

int collectTrustErrors(int ok, X509_STORE_CTX* ctx) {
    if (ok == 1) {
        return 1;
    }
    auto* collector = static_cast<TrustCollector*>(X509_STORE_CTX_get_app_data(ctx));
    const int error = X509_STORE_CTX_get_error(ctx);
    X509* current = X509_STORE_CTX_get_current_cert(ctx);
    // A root vouches for itself; it has no revocation status to find.
    if (collector->revocation && error == X509_V_ERR_UNABLE_TO_GET_CRL && current != nullptr &&
        X509_self_signed(current, 0) == 1) {
        return 1;
    }
    collector->flagsByDepth[X509_STORE_CTX_get_error_depth(ctx)] |= trustFlagFor(error);
    return 1;
}

// Server authentication, or one of the two server-gated-crypto purposes; a
// certificate without extended key usage is good for any.
bool validForServerAuth(X509* cert) {
    if ((X509_get_extension_flags(cert) & EXFLAG_XKUSAGE) == 0) {
        return true;
    }
    return (X509_get_extended_key_usage(cert) & (XKU_SSL_SERVER | XKU_SGC | XKU_ANYEKU)) != 0;
}

std::string pemOf(const CertContext& context) {
    return x509ToPem(context.cert.get());
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

std::shared_ptr<const std::vector<X509Ptr>> OpenSslCertStore::Impl::systemRoots(
    const std::string& file, bool& readable) {
    struct stat st {};
    readable = ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    if (!readable) {
        return std::make_shared<const std::vector<X509Ptr>>();
    }
    {
        std::lock_guard lock(mutex_);
        if (roots_ && file_ == file && size_ == st.st_size && mtime_.tv_sec == st.st_mtim.tv_sec &&
            mtime_.tv_nsec == st.st_mtim.tv_nsec) {
            return roots_;
        }
    }
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) {
        readable = false;
        return std::make_shared<const std::vector<X509Ptr>>();
    }
    auto roots = std::make_shared<const std::vector<X509Ptr>>(x509sFromPemBundle(text.str()));
    std::lock_guard lock(mutex_);
    roots_ = roots;
    file_ = file;
    size_ = st.st_size;
    mtime_ = st.st_mtim;
    return roots;
}

CertChainPtr OpenSslCertStore::Impl::buildChain(const Options& options, const CertContext& leaf,
                                                const CertStorePtr& additional,
                                                const std::vector<CrlPtr>* crls,
                                                std::string& error) {
    auto db = openCertDatabase(options.databaseFile, "BuildCertificateChain");
    const auto rows = db ? db->certificates({}) : std::nullopt;
    if (!rows) {
        error = db ? db->errorText() : "cannot open the certificate database";
        return nullptr;
    }
    X509StorePtr anchors(X509_STORE_new());
    X509StackPtr untrusted(sk_X509_new_null());
    if (!anchors || !untrusted) {
        error = "out of memory";
        return nullptr;
    }
    bool readable = false;
    const auto systemRoots = this->systemRoots(options.systemRootsFile, readable);
    for (const auto& root : *systemRoots) {
        X509_STORE_add_cert(anchors.get(), root.get());
    }
    // The machine's "Root" store is trusted; every other store supplies
    // issuers, as does the caller's store.
    std::vector<X509Ptr> others;
    for (const auto& row : *rows) {
        X509Ptr cert = x509FromDer(row.der);
        if (!cert) {
            continue;
        }
        if (strcasecmp(row.store.c_str(), kRootStoreName) == 0) {
            X509_STORE_add_cert(anchors.get(), cert.get());
        } else {
            others.push_back(std::move(cert));
        }
    }
    if (const auto* memory = dynamic_cast<const MemoryStoreHandle*>(additional.get())) {
        for (auto& context : memory->contexts(additional)) {
            others.push_back(std::move(context.cert));
        }
    }
    for (auto& cert : others) {
        if (sk_X509_push(untrusted.get(), cert.get()) > 0) {
            cert.release();  // owned by the stack now
        }
    }
    ERR_clear_error();  // duplicate anchors are reported as errors and are harmless
    TrustCollector collector;
    if (crls != nullptr) {
        collector.revocation = true;
        for (const auto& crl : *crls) {
            X509_STORE_add_crl(anchors.get(), crl.get());
        }
        X509_STORE_set_flags(anchors.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    }
    X509StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx ||
        X509_STORE_CTX_init(ctx.get(), anchors.get(), leaf.cert.get(), untrusted.get()) != 1) {
        error = "cannot set up the verification";
        ERR_clear_error();
        return nullptr;
    }
    X509_STORE_CTX_set_app_data(ctx.get(), &collector);
    X509_STORE_CTX_set_verify_cb(ctx.get(), collectTrustErrors);
    if (X509_verify_cert(ctx.get()) < 0) {
        error = "verification failed to run";
        ERR_clear_error();
        return nullptr;
    }
    ERR_clear_error();
    X509StackPtr built(X509_STORE_CTX_get1_chain(ctx.get()));
    if (!built || sk_X509_num(built.get()) == 0) {
        error = "no chain";
        return nullptr;
    }
    auto chain = std::make_unique<CertChain>();
    SimpleChain simple;
    for (int i = 0; i < sk_X509_num(built.get()); ++i) {
        X509* cert = sk_X509_value(built.get(), i);
        ChainElement element;
        element.context = i == 0 ? leaf : CertContext(shareX509(cert));
        const auto found = collector.flagsByDepth.find(i);
        element.errorStatus = found != collector.flagsByDepth.end() ? found->second : 0;
        element.infoStatus = X509_self_signed(cert, 0) == 1 ? trust::kIsSelfSigned : 0;
        simple.errorStatus |= element.errorStatus;
        simple.elements.push_back(std::move(element));
    }
    ERR_clear_error();
    chain->errorStatus = simple.errorStatus;
    chain->simpleChains.push_back(std::move(simple));
    return chain;
}

std::vector<std::string> OpenSslCertStore::RetrieveSystemCertificates() {
    std::vector<std::string> pems;
    bool readable = false;
    const auto roots = impl_->systemRoots(options_.systemRootsFile, readable);
    if (!readable) {
        MFW_LOG(4,
                "OpenSslCertStore::RetrieveSystemCertificates(): Unable to open root certificate "
                "store");
    }
    for (const auto& root : *roots) {
        if (std::string pem = x509ToPem(root.get()); !pem.empty()) {
            pems.push_back(std::move(pem));
        }
    }
    // Roots an operator added to the agent's own "Root" store count too.
    auto db = openCertDatabase(options_.databaseFile, "RetrieveSystemCertificates");
    const auto rows = db ? db->certificates(kRootStoreName) : std::nullopt;
    for (const auto& context : rows ? rowsToContexts(*rows, nullptr) : std::vector<CertContext>{}) {
        if (std::string pem = pemOf(context); !pem.empty()) {
            pems.push_back(std::move(pem));
        }
    }
    return pems;
}

CertChainPtr OpenSslCertStore::BuildCertificateChain(const CertContext* cert,
                                                     const CertStorePtr& additionalStore) {
    if (cert == nullptr || !cert->cert) {
        MFW_LOG(4,
                "OpenSslCertStore::BuildCertificateChain(): Client certificate context not "
                "provided.");
        return nullptr;
    }
    if (!additionalStore) {
        MFW_LOG(4,
                "OpenSslCertStore::BuildCertificateChain(): Certificate store handle not "
                "provided.");
        return nullptr;
    }
    std::string error;
    CertChainPtr chain = impl_->buildChain(options_, *cert, additionalStore, nullptr, error);
    if (!chain) {
        MFW_LOG(4,
                "OpenSslCertStore::BuildCertificateChain(): CertGetCertificateChain failed, with "
                "last error=%d",
                -1);
        MFW_LOG(4, "OpenSslCertStore::BuildCertificateChain(): %s", error.c_str());
    }
    return chain;
}

bool OpenSslCertStore::RetrieveCACertificateChain(const CertContext& cert,
                                                  const CertStorePtr& store,
                                                  std::vector<std::string>& caChainPem) {
    caChainPem.clear();
    const CertChainPtr chain = BuildCertificateChain(&cert, store);
    if (!chain) {
        return false;
    }
    const auto& elements = chain->simpleChains.front().elements;
    for (std::size_t i = 1; i < elements.size(); ++i) {
        std::string pem = pemOf(elements[i].context);
        if (pem.empty()) {
            caChainPem.clear();
            return false;
        }
        caChainPem.push_back(std::move(pem));
    }
    return true;
}

bool OpenSslCertStore::RetrieveRootCACertificate(const CertContext& cert, const CertStorePtr& store,
                                                 std::string& rootCaPem) {
    rootCaPem.clear();
    const CertChainPtr chain = BuildCertificateChain(&cert, store);
    if (!chain) {
        return false;
    }
    // The top of the chain: a self-signed root, or the highest issuer known
    // when the root itself is not at hand.
    const auto& elements = chain->simpleChains.front().elements;
    const ChainElement& top = elements.back();
    if (elements.size() < 2 && (top.infoStatus & trust::kIsSelfSigned) == 0) {
        MFW_LOG(3,
                "OpenSslCertStore::RetrieveRootCACertificate(): No issuer of the certificate is "
                "known.");
        return false;
    }
    rootCaPem = pemOf(top.context);
    return !rootCaPem.empty();
}

bool OpenSslCertStore::ConvertChainCtxToPEM(const CertChain* chain,
                                            std::vector<std::string>& pems) {
    pems.clear();
    if (chain == nullptr) {
        MFW_LOG(4, "OpenSslCertStore::ConvertChainCtxToPEM(): No chain context provided.");
        return false;
    }
    MFW_LOG(0,
            "OpenSslCertStore::ConvertChainCtxToPEM(): Number of simple chains in the chain "
            "context=%d",
            static_cast<int>(chain->simpleChains.size()));
    if (chain->simpleChains.empty()) {
        return false;
    }
    const auto& elements = chain->simpleChains.front().elements;
    MFW_LOG(0,
            "OpenSslCertStore::ConvertChainCtxToPEM(): Number of certificates in simple chain %d "
            "is %d.",
            0, static_cast<int>(elements.size()));
    for (const auto& element : elements) {
        X509* cert = element.context.cert.get();
        const std::string subject = cert ? nameToText(X509_get_subject_name(cert)) : "";
        const std::string issuer = cert ? nameToText(X509_get_issuer_name(cert)) : "";
        MFW_LOG(0, "OpenSslCertStore::ConvertChainCtxToPEM(): Found subject=%s; Found issuer=%s",
                subject.c_str(), issuer.c_str());
        std::string pem = cert ? x509ToPem(cert) : "";
        if (pem.empty()) {
            pems.clear();
            return false;
        }
        pems.push_back(std::move(pem));
    }
    return !pems.empty();
}

bool OpenSslCertStore::VerifyCertChain(const CertChain* chain, const std::string& serverName,
                                       bool ignoreUntrustedRoot, bool ignoreName,
                                       std::uint32_t& policyStatus) {
    policyStatus = policy::kTrustFailure;
    const CertContext* end = chain != nullptr ? chain->endCertificate() : nullptr;
    if (end == nullptr || !end->cert) {
        MFW_LOG(4,
                "OpenSslCertStore::VerifyCertChain(): CertVerifyCertificateChainPolicy Error: %s",
                "no chain");
        return false;
    }
    const std::uint32_t status = chain->simpleChains.front().errorStatus;
    X509* leaf = end->cert.get();
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
    if (cert == nullptr || !cert->cert) {
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
    if (!validForServerAuth(cert->cert.get())) {
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
        if ((element.errorStatus & trust::kRevocationStatusUnknown) == 0 || !element.context.cert) {
            continue;
        }
        for (const auto& url : crlUrlsOf(element.context.cert.get())) {
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
