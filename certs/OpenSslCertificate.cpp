#include "certs/OpenSslCertificate.h"

#include "certs/OpenSslUtil.h"

namespace ndpx::certs {

namespace {

class OpenSslCertificate final : public CertificateHandle {
public:
    explicit OpenSslCertificate(X509Ptr cert) : cert_(std::move(cert)) {}
    std::vector<std::uint8_t> der() const override { return x509ToDer(cert_.get()); }
    X509* x509() const { return cert_.get(); }

private:
    const X509Ptr cert_;
};

}  // namespace

X509Ptr shareX509(X509* cert) {
    if (cert == nullptr || X509_up_ref(cert) != 1) {
        return nullptr;
    }
    return X509Ptr(cert);
}

CertificatePtr certificateOf(X509Ptr cert) {
    if (!cert) {
        return nullptr;
    }
    return std::make_shared<const OpenSslCertificate>(std::move(cert));
}

CertificatePtr shareCertificate(X509* cert) {
    return certificateOf(shareX509(cert));
}

X509* x509Of(const CertificatePtr& cert) {
    const auto* openSsl = dynamic_cast<const OpenSslCertificate*>(cert.get());
    return openSsl != nullptr ? openSsl->x509() : nullptr;
}

X509* x509Of(const CertContext& context) {
    return x509Of(context.cert);
}

}  // namespace ndpx::certs
