// CurlHttpRequest's server checks, made in the TLS handshake before any
// byte of the request is sent: pinning, the platform's checks, revocation.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"
#include "net/HashGenerator.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace ndpx::net {

namespace {

// The cancel token of the request whose server checks run on this thread:
// a CRL fetch the store makes for them ends when the request is cancelled.
thread_local CancelToken* t_checkingCancel = nullptr;

class CheckingRequest {
public:
    explicit CheckingRequest(CancelToken* cancel) : previous_(t_checkingCancel) {
        t_checkingCancel = cancel;
    }
    ~CheckingRequest() { t_checkingCancel = previous_; }
    CheckingRequest(const CheckingRequest&) = delete;
    CheckingRequest& operator=(const CheckingRequest&) = delete;

private:
    CancelToken* previous_;
};

}  // namespace

certs::OpenSslCertStore::CrlFetcher crlFetcher() {
    return [](const std::string& url, std::string& crl, std::string& error) {
        constexpr auto kTimeout = std::chrono::seconds(15);
        constexpr std::size_t kMaxBytes = 16u << 20;
        return fetchText(url, kTimeout, kMaxBytes, t_checkingCancel, crl, error);
    };
}

std::shared_ptr<certs::CertUtilityInterface> fetchingMachineStore() {
    certs::OpenSslCertStore::Options options;
    options.crlFetcher = crlFetcher();
    return std::make_shared<certs::OpenSslCertStore>(std::move(options));
}

CURLcode CurlHttpRequest::sslContextCallback(CURL*, void* sslCtx, void* userptr) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(sslCtx),
                                     &CurlHttpRequest::verifyCallback, userptr);
    return CURLE_OK;
}

int CurlHttpRequest::verifyCallback(X509_STORE_CTX* ctx, void* arg) {
    auto* t = static_cast<Transfer*>(arg);
    bool ok = false;
    try {
        ok = t != nullptr && t->owner->verifyServer(*t, ctx);
    } catch (...) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Internal error while checking the server");
        ok = false;
    }
    ERR_clear_error();
    X509_STORE_CTX_set_error(ctx, ok ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
    return ok ? 1 : 0;
}

bool CurlHttpRequest::verifyServer(Transfer& t, X509_STORE_CTX* ctx) {
    const CheckingRequest checking(t.cancel.get());
    X509* leaf = X509_STORE_CTX_get0_cert(ctx);
    // The server certificate as a platform TLS stack hands it over: with the
    // certificates the server sent in an in-memory store of its own, where
    // chain building looks for issuers; the additional store joins them.
    certs::CertContext server(certs::shareCertificate(leaf));
    server.store = t.store->OpenMemoryStore();
    if (server && server.store) {
        const auto add = [&](X509* cert) {
            if (cert != nullptr && X509_cmp(cert, leaf) != 0) {
                t.store->ImportCertificate(certs::x509ToPem(cert), server.store, "", {}, "");
            }
        };
        if (STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(ctx)) {
            for (int i = 0; i < sk_X509_num(sent); ++i) {
                add(sk_X509_value(sent, i));
            }
        }
        for (const auto& extra : t.additional) {
            add(extra.get());
        }
    }
    if (!t.pin.empty()) {
        const bool ok = SendingRequest(t, server);
        t.refusedByPin = !ok;
        return ok;
    }
    return checkAsPlatform(t, server);
}

// The checks with a pinned thumbprint.
bool CurlHttpRequest::SendingRequest(Transfer& t, const certs::CertContext& server) {
    bool verified = false;
    {
        CORE::MutexLock lock(shared_->mutex);
        verified = chainVerified_;
    }
    if (verified) {
        MFW_LOG(1,
                "CurlHttpRequest::SendingRequest(): Skip as server certificate chain has "
                "already been verified");
        return true;
    }
    if (t.ignoreAll) {
        return true;
    }
    const certs::CertChainPtr chain =
        server ? t.store->BuildCertificateChain(&server, server.store) : nullptr;
    if (!chain) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Unable to obtain certificate chain");
        return false;
    }
    std::uint32_t status = 0;
    if (!t.store->VerifyCertChain(chain.get(), t.host, false, false, status)) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Initial VerifyCertChain failed");
        return false;
    }
    bool pinning = false;
    if (status == certs::policy::kUntrustedRoot) {
        std::uint32_t relaxed = 0;
        if (!t.store->VerifyCertChain(chain.get(), t.host, true, false, relaxed)) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): VerifyCertChain with untrustedroot "
                    "ignored failed");
            return false;
        }
        if (relaxed == certs::policy::kCnNoMatch) {
            MFW_LOG(3, "CurlHttpRequest::SendingRequest(): Found a CN/SAN mismatch");
            if (!t.ignoreName) {
                return false;
            }
        } else if (relaxed != certs::policy::kOk) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Unable to verify cert chain with CA check "
                    "disabled. Error: 0x%x",
                    relaxed);
            return false;
        }
        pinning = true;
    } else if (status == certs::policy::kCnNoMatch) {
        MFW_LOG(3, "CurlHttpRequest::SendingRequest(): Found a CN/SAN mismatch");
        if (!t.ignoreName) {
            return false;
        }
    } else if (status != certs::policy::kOk) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Unable to verify cert chain. Error: 0x%x",
                status);
        return false;
    }

    if (pinning) {
        // An unknown root: trust only a chain holding the pinned certificate.
        std::vector<std::string> pems;
        if (!t.store->ConvertChainCtxToPEM(chain.get(), pems)) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Failed to convert chain context to pem "
                    "format");
            return false;
        }
        std::string received;
        const std::string* matched = nullptr;
        for (const auto& pem : pems) {
            received += pem;
            if (pemThumbprint(pem) == t.pin) {
                matched = &pem;
            }
        }
        MFW_LOG(0, "CurlHttpRequest::SendingRequest(): Received cert chain from server:\r\n%s",
                received.c_str());
        if (matched == nullptr) {
            MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Thumbprints did not match");
            return false;
        }
        MFW_LOG(1, "CurlHttpRequest::SendingRequest(): Matched using the following chain:\r\n%s",
                matched->c_str());
        CORE::MutexLock lock(shared_->mutex);
        chainVerified_ = true;
        return true;
    }

    if (t.checkRevocation) {
        std::uint32_t errorStatus = 0;
        std::uint32_t infoStatus = 0;
        if (!t.store->VerifyCertRevocation(&server, {}, errorStatus, infoStatus)) {
            MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Failed to make revocation check");
            return false;
        }
        if (errorStatus != 0) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Revocation check failed. Status: 0x%x "
                    "Info: 0x%x",
                    errorStatus, infoStatus);
            return false;
        }
    }
    CORE::MutexLock lock(shared_->mutex);
    chainVerified_ = true;
    return true;
}

// The checks without a pinned thumbprint, as the platform's TLS stack makes
// them: a trusted chain for the host, reported as secure-failure flags.
bool CurlHttpRequest::checkAsPlatform(Transfer& t, const certs::CertContext& server) {
    if (t.ignoreAll) {
        return true;
    }
    const certs::CertChainPtr chain =
        server ? t.store->BuildCertificateChain(&server, server.store) : nullptr;
    std::uint32_t status = 0;
    if (!chain || chain->simpleChains.empty() ||
        !t.store->VerifyCertChain(chain.get(), t.host, true, t.ignoreName, status)) {
        t.secureFailure = true;
        MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Internal ssl library error");
        return false;
    }
    const std::uint32_t bits = chain->simpleChains.front().errorStatus;
    const bool unknownCa = (bits & (certs::trust::kUntrustedRoot | certs::trust::kPartialChain));
    const bool expired = (bits & certs::trust::kNotTimeValid) != 0;
    const bool invalid =
        (bits & (certs::trust::kNotSignatureValid | certs::trust::kNotValidForUsage |
                 certs::trust::kInvalidBasicConstraints | certs::trust::kInvalidExtension)) != 0 ||
        status == certs::policy::kWrongUsage || status == certs::policy::kTrustFailure;
    const bool wrongName = status == certs::policy::kCnNoMatch;
    if (unknownCa || expired || invalid || wrongName) {
        t.secureFailure = true;
        if (invalid) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate is invalid");
        }
        if (unknownCa) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate Authority is unrecognized");
        }
        if (wrongName) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate Common Name is incorrect");
        }
        if (expired) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate is expired");
        }
        return false;
    }
    if (t.checkRevocation) {
        std::uint32_t errorStatus = 0;
        std::uint32_t infoStatus = 0;
        if (!t.store->VerifyCertRevocation(&server, {}, errorStatus, infoStatus) ||
            (errorStatus & ~certs::trust::kRevoked) != 0) {
            t.secureFailure = true;
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate revocation check failed");
        }
        if (errorStatus & certs::trust::kRevoked) {
            t.secureFailure = true;
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate has been revoked");
        }
        if (t.secureFailure) {
            return false;
        }
    }
    return true;
}

}  // namespace ndpx::net
