// OpenSslCertStore's chains: the machine's trusted roots, chain building
// with every problem collected, and chains read out as PEM.

#include "StoreInternals.h"
#include "certs/linux/OpenSslCertStore.h"
#include "certs/linux/SystemRoots.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <strings.h>
#include <map>

namespace ndpx::certs {

namespace {

struct BorrowingStackDeleter {
    void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
};
// A stack of certificates someone else owns.
using BorrowedStackPtr = std::unique_ptr<STACK_OF(X509), BorrowingStackDeleter>;

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

std::string pemOf(const CertContext& context) {
    return x509ToPem(x509Of(context));
}

}  // namespace

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
    // The trusted certificates: the machine's "Root" store and the system
    // roots that may issue a certificate at hand (shared by the process,
    // decoded on first need), as one stack that borrows them; `systemRoots`
    // and `rootStore` keep them alive until the check ends. The store only
    // carries the CRLs and flags.
    const auto systemRoots = systemRootSet(options.systemRootsFile);
    X509StorePtr store(X509_STORE_new());
    BorrowedStackPtr anchors(sk_X509_new_null());
    X509StackPtr untrusted(sk_X509_new_null());
    if (!store || !anchors || !untrusted) {
        error = "out of memory";
        return nullptr;
    }
    // Every other store supplies issuers, as does the caller's store.
    std::vector<X509Ptr> rootStore;
    std::vector<X509Ptr> others;
    for (const auto& row : *rows) {
        X509Ptr cert = x509FromDer(row.der);
        if (!cert) {
            continue;
        }
        (strcasecmp(row.store.c_str(), kRootStoreName) == 0 ? rootStore : others)
            .push_back(std::move(cert));
    }
    if (const auto* memory = dynamic_cast<const MemoryStoreHandle*>(additional.get())) {
        for (const auto& context : memory->contexts(additional)) {
            if (X509Ptr cert = shareX509(x509Of(context))) {
                others.push_back(std::move(cert));
            }
        }
    }
    std::vector<X509*> issued = {x509Of(leaf)};
    for (const auto& cert : rootStore) {
        issued.push_back(cert.get());
        if (sk_X509_push(anchors.get(), cert.get()) <= 0) {
            error = "out of memory";
            return nullptr;
        }
    }
    for (auto& cert : others) {
        issued.push_back(cert.get());
        if (sk_X509_push(untrusted.get(), cert.get()) > 0) {
            (void)cert.release();  // owned by the stack now
        }
    }
    if (!systemRoots->addIssuers(issued, anchors.get())) {
        error = "out of memory";
        return nullptr;
    }
    ERR_clear_error();
    TrustCollector collector;
    if (crls != nullptr) {
        collector.revocation = true;
        for (const auto& crl : *crls) {
            X509_STORE_add_crl(store.get(), crl.get());
        }
        X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
    }
    X509StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), x509Of(leaf), untrusted.get()) != 1) {
        error = "cannot set up the verification";
        ERR_clear_error();
        return nullptr;
    }
    X509_STORE_CTX_set0_trusted_stack(ctx.get(), anchors.get());
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
        element.context = i == 0 ? leaf : CertContext(shareCertificate(cert));
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
    const auto roots = systemRootSet(options_.systemRootsFile);
    if (!roots->readable()) {
        MFW_LOG(4,
                "OpenSslCertStore::RetrieveSystemCertificates(): Unable to open root certificate "
                "store");
    }
    std::vector<std::string> pems = roots->pems();
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
    if (cert == nullptr || x509Of(*cert) == nullptr) {
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

bool caChainOf(const CertChain& chain, std::vector<std::string>& caChainPem) {
    caChainPem.clear();
    const auto& elements = chain.simpleChains.front().elements;
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

bool rootOf(const CertChain& chain, std::string& rootCaPem) {
    rootCaPem.clear();
    // The top of the chain: a self-signed root, or the highest issuer known
    // when the root itself is not at hand.
    const auto& elements = chain.simpleChains.front().elements;
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

bool OpenSslCertStore::RetrieveCACertificateChain(const CertContext& cert,
                                                  const CertStorePtr& store,
                                                  std::vector<std::string>& caChainPem) {
    caChainPem.clear();
    const CertChainPtr chain = BuildCertificateChain(&cert, store);
    return chain && caChainOf(*chain, caChainPem);
}

bool OpenSslCertStore::RetrieveRootCACertificate(const CertContext& cert, const CertStorePtr& store,
                                                 std::string& rootCaPem) {
    rootCaPem.clear();
    const CertChainPtr chain = BuildCertificateChain(&cert, store);
    return chain && rootOf(*chain, rootCaPem);
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
        X509* cert = x509Of(element.context);
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

}  // namespace ndpx::certs
