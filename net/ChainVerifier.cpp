#include "net/ChainVerifier.h"

#include "net/HashGenerator.h"

#include <mfw/moduleLog.h>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

namespace ndpx::net {

namespace {

// Errors met while building and judging one chain.
struct Collector {
    unsigned problems = 0;
    std::uint32_t trustBits = 0;
    std::vector<std::string> texts;
};

unsigned problemOf(int err) {
    switch (err) {
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
        case X509_V_ERR_CERT_UNTRUSTED:
        case X509_V_ERR_CERT_REJECTED:
            return ChainCheck::kUntrusted;
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
        case X509_V_ERR_EMAIL_MISMATCH:
            return ChainCheck::kName;
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_CERT_NOT_YET_VALID:
        case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
        case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
            return ChainCheck::kTime;
        case X509_V_ERR_INVALID_PURPOSE:
            return ChainCheck::kUsage;
        case X509_V_ERR_INVALID_CA:
        case X509_V_ERR_PATH_LENGTH_EXCEEDED:
        case X509_V_ERR_INVALID_NON_CA:
            return ChainCheck::kConstraints;
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
        case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
        case X509_V_ERR_EE_KEY_TOO_SMALL:
        case X509_V_ERR_CA_KEY_TOO_SMALL:
        case X509_V_ERR_CA_MD_TOO_WEAK:
            return ChainCheck::kSignature;
        default:
            return ChainCheck::kOther;
    }
}

std::uint32_t trustBitsOf(int err) {
    switch (err) {
        case X509_V_ERR_CERT_REVOKED:
            return trust::kRevoked;
        case X509_V_ERR_UNABLE_TO_GET_CRL:
        case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
        case X509_V_ERR_CRL_HAS_EXPIRED:
        case X509_V_ERR_CRL_NOT_YET_VALID:
        case X509_V_ERR_CRL_SIGNATURE_FAILURE:
        case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
        case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
        case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
        case X509_V_ERR_DIFFERENT_CRL_SCOPE:
        case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
        case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
            return trust::kRevocationStatusUnknown | trust::kOfflineRevocation;
        default:
            break;
    }
    switch (problemOf(err)) {
        case ChainCheck::kUntrusted:
            return err == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY ||
                           err == X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT
                       ? trust::kUntrustedRoot | trust::kPartialChain
                       : trust::kUntrustedRoot;
        case ChainCheck::kTime:
            return trust::kNotTimeValid;
        case ChainCheck::kUsage:
            return trust::kNotValidForUsage;
        case ChainCheck::kConstraints:
            return trust::kInvalidBasicConstraints;
        case ChainCheck::kSignature:
            return trust::kNotSignatureValid;
        default:
            return trust::kInvalidExtension;
    }
}

// Records every error and lets the verifier go on, so that one run yields
// the whole chain and every problem in it.
int collectErrors(int ok, X509_STORE_CTX* ctx) {
    if (ok == 1) {
        return 1;
    }
    auto* collector = static_cast<Collector*>(X509_STORE_CTX_get_app_data(ctx));
    const int err = X509_STORE_CTX_get_error(ctx);
    if (collector != nullptr) {
        collector->problems |= problemOf(err);
        collector->trustBits |= trustBitsOf(err);
        std::string text = X509_verify_cert_error_string(err);
        text += " (depth " + std::to_string(X509_STORE_CTX_get_error_depth(ctx)) + ")";
        if (std::find(collector->texts.begin(), collector->texts.end(), text) ==
            collector->texts.end()) {
            collector->texts.push_back(std::move(text));
        }
    }
    return 1;
}

bool isIpAddress(const std::string& name) {
    unsigned char buf[16];
    return ::inet_pton(AF_INET, name.c_str(), buf) == 1 ||
           ::inet_pton(AF_INET6, name.c_str(), buf) == 1;
}

std::string stripBrackets(const std::string& host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        return host.substr(1, host.size() - 2);
    }
    return host;
}

bool readFile(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

std::vector<X509CrlPtr> readCrls(const std::string& path) {
    std::vector<X509CrlPtr> crls;
    std::string data;
    if (!readFile(path, data)) {
        return crls;
    }
    if (data.find("-----BEGIN X509 CRL-----") != std::string::npos) {
        BioPtr bio(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
        while (bio) {
            X509_CRL* crl = PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr);
            if (crl == nullptr) {
                break;
            }
            crls.emplace_back(crl);
        }
        ERR_clear_error();
    } else {
        const auto* p = reinterpret_cast<const unsigned char*>(data.data());
        if (X509_CRL* crl = d2i_X509_CRL(nullptr, &p, static_cast<long>(data.size()))) {
            crls.emplace_back(crl);
        }
    }
    return crls;
}

// Runs the verifier over `leaf`; the collector receives every error.
bool runVerifier(X509_STORE* store, X509* leaf, STACK_OF(X509) * untrusted,
                 const std::string& serverName, Collector& collector, std::vector<X509Ptr>* chain) {
    X509StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store, leaf, untrusted) != 1) {
        return false;
    }
    X509_STORE_CTX_set_default(ctx.get(), "ssl_server");
    X509_STORE_CTX_set_app_data(ctx.get(), &collector);
    X509_STORE_CTX_set_verify_cb(ctx.get(), collectErrors);
    if (!serverName.empty()) {
        X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
        const std::string name = stripBrackets(serverName);
        const int set = isIpAddress(name)
                            ? X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str())
                            : X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
        if (set != 1) {
            collector.problems |= ChainCheck::kName;
        }
    }
    const int rc = X509_verify_cert(ctx.get());
    if (rc < 0 || (rc == 0 && collector.problems == 0 && collector.trustBits == 0)) {
        // An internal failure rather than a verdict on the chain.
        ERR_clear_error();
        return false;
    }
    if (chain != nullptr) {
        X509StackPtr built(X509_STORE_CTX_get1_chain(ctx.get()));
        for (int i = 0; built && i < sk_X509_num(built.get()); ++i) {
            chain->push_back(shareX509(sk_X509_value(built.get(), i)));
        }
    }
    ERR_clear_error();
    return true;
}

}  // namespace

std::uint32_t ChainCheck::policyStatus(bool ignoreUntrustedRoot, bool ignoreName) const {
    if (problems_ & kSignature) {
        return policy::kBadSignature;
    }
    if ((problems_ & kUntrusted) && !ignoreUntrustedRoot) {
        return policy::kUntrustedRoot;
    }
    if (problems_ & kConstraints) {
        return policy::kBadBasicConstraints;
    }
    if (problems_ & kUsage) {
        return policy::kWrongUsage;
    }
    if (problems_ & kTime) {
        return policy::kExpired;
    }
    if (problems_ & kOther) {
        return policy::kTrustFailure;
    }
    if ((problems_ & kName) && !ignoreName) {
        return policy::kCnNoMatch;
    }
    return policy::kOk;
}

ChainVerifier::ChainVerifier(TrustSettings settings) : settings_(std::move(settings)) {}

X509StorePtr ChainVerifier::makeStore(bool withCrls) const {
    X509StorePtr store(X509_STORE_new());
    if (!store) {
        return nullptr;
    }
    // Without readable roots nothing is trusted, but a pinned chain can still pass.
    if (X509_STORE_load_file(store.get(), settings_.rootsFile.c_str()) != 1) {
        ERR_clear_error();
        MFW_LOG(3, "ChainVerifier::makeStore(): Unable to load trusted roots from %s",
                settings_.rootsFile.c_str());
    }
    if (withCrls) {
        for (const auto& file : settings_.crlFiles) {
            auto crls = readCrls(file);
            if (crls.empty()) {
                MFW_LOG(3, "ChainVerifier::makeStore(): Unable to read CRL file %s", file.c_str());
            }
            for (auto& crl : crls) {
                X509_STORE_add_crl(store.get(), crl.get());
            }
        }
        X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        ERR_clear_error();
    }
    return store;
}

std::optional<ChainCheck> ChainVerifier::check(X509* leaf, STACK_OF(X509) * untrusted,
                                               const std::string& serverName) const {
    if (leaf == nullptr) {
        return std::nullopt;
    }
    X509StorePtr store = makeStore(false);
    if (!store) {
        return std::nullopt;
    }
    Collector collector;
    ChainCheck result;
    if (!runVerifier(store.get(), leaf, untrusted, serverName, collector, &result.chain_)) {
        return std::nullopt;
    }
    result.problems_ = collector.problems;
    result.errorTexts_ = std::move(collector.texts);
    return result;
}

bool ChainVerifier::checkRevocation(X509* leaf, STACK_OF(X509) * untrusted,
                                    std::uint32_t& errorStatus, std::uint32_t& infoStatus) const {
    errorStatus = 0;
    infoStatus = 0;
    if (leaf == nullptr) {
        return false;
    }
    X509StorePtr store = makeStore(true);
    if (!store) {
        return false;
    }
    Collector collector;
    if (!runVerifier(store.get(), leaf, untrusted, std::string(), collector, nullptr)) {
        return false;
    }
    errorStatus = collector.trustBits;
    for (const auto& text : collector.texts) {
        MFW_LOG(1, "ChainVerifier::checkRevocation(): %s", text.c_str());
    }
    return true;
}

std::string certificateToPem(X509* cert) {
    if (cert == nullptr) {
        return {};
    }
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        ERR_clear_error();
        return {};
    }
    char* data = nullptr;
    const long len = BIO_get_mem_data(bio.get(), &data);
    return len > 0 ? std::string(data, static_cast<std::size_t>(len)) : std::string();
}

std::vector<X509Ptr> certificatesFromPem(const std::string& pem) {
    std::vector<X509Ptr> out;
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    while (bio) {
        X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr);
        if (cert == nullptr) {
            break;
        }
        out.emplace_back(cert);
    }
    ERR_clear_error();
    return out;
}

std::string pemThumbprint(const std::string& pem) {
    HashGenerator hash;
    hash.SetAlgorithm(HashGenerator::kSha256, false);
    std::string result;
    if (!hash.GenerateHash(pem, std::string(), HashGenerator::kHexColon, result)) {
        return {};
    }
    return result;
}

}  // namespace ndpx::net
