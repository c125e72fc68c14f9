#include "devca/DevCa.h"

#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace ndpx::devca {

namespace {

struct BioDeleter {
    void operator()(BIO* p) const { BIO_free_all(p); }
};
struct ReqDeleter {
    void operator()(X509_REQ* p) const { X509_REQ_free(p); }
};
struct CrlDeleter {
    void operator()(X509_CRL* p) const { X509_CRL_free(p); }
};
struct RevokedDeleter {
    void operator()(X509_REVOKED* p) const { X509_REVOKED_free(p); }
};
struct ExtDeleter {
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
struct BnDeleter {
    void operator()(BIGNUM* p) const { BN_free(p); }
};
struct AsnIntDeleter {
    void operator()(ASN1_INTEGER* p) const { ASN1_INTEGER_free(p); }
};
struct AsnTimeDeleter {
    void operator()(ASN1_TIME* p) const { ASN1_TIME_free(p); }
};
struct NameDeleter {
    void operator()(X509_NAME* p) const { X509_NAME_free(p); }
};
using BioPtr = std::unique_ptr<BIO, BioDeleter>;
using ReqPtr = std::unique_ptr<X509_REQ, ReqDeleter>;
using CrlPtr = std::unique_ptr<X509_CRL, CrlDeleter>;
using RevokedPtr = std::unique_ptr<X509_REVOKED, RevokedDeleter>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, ExtDeleter>;
using BnPtr = std::unique_ptr<BIGNUM, BnDeleter>;
using AsnIntPtr = std::unique_ptr<ASN1_INTEGER, AsnIntDeleter>;
using AsnTimePtr = std::unique_ptr<ASN1_TIME, AsnTimeDeleter>;
using NamePtr = std::unique_ptr<X509_NAME, NameDeleter>;

// Failures here are failures of OpenSSL itself (memory, RNG), not of the
// caller's input: a development CA has no sensible way to go on.
[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    char reason[256] = "no OpenSSL error";
    if (code != 0) {
        ERR_error_string_n(code, reason, sizeof reason);
    }
    ERR_clear_error();
    throw std::runtime_error("devca: " + what + ": " + reason);
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    return n > 0 ? std::string(data, static_cast<std::size_t>(n)) : std::string();
}

std::string certToPem(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        fail("cannot write certificate PEM");
    }
    return bioText(bio.get());
}

std::string keyToPem(EVP_PKEY* key) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        fail("cannot write key PEM");
    }
    return bioText(bio.get());
}

PkeyPtr newRsaKey() {
    PkeyPtr key(EVP_RSA_gen(2048));
    if (!key) {
        fail("RSA key generation failed");
    }
    return key;
}

// 64 random bits followed by the CA's counter: unique within one CA by the
// counter, and across CAs (which restart their counters) by the random part.
AsnIntPtr makeSerial(long counter) {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, 8) != 1) {
        fail("no randomness for the serial number");
    }
    bytes[0] &= 0x7f;  // positive
    bytes[0] |= 0x40;  // and never shorter than 16 bytes, so the hex form is stable
    auto value = static_cast<unsigned long long>(counter);
    for (int i = 15; i >= 8; --i) {
        bytes[i] = static_cast<unsigned char>(value & 0xff);
        value >>= 8;
    }
    BnPtr bn(BN_bin2bn(bytes, sizeof bytes, nullptr));
    AsnIntPtr serial(bn ? BN_to_ASN1_INTEGER(bn.get(), nullptr) : nullptr);
    if (!serial) {
        fail("cannot make a serial number");
    }
    return serial;
}

std::string serialHexOf(X509* cert) {
    BnPtr bn(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    char* hex = bn ? BN_bn2hex(bn.get()) : nullptr;
    if (hex == nullptr) {
        fail("cannot format a serial number");
    }
    std::string out(hex);
    OPENSSL_free(hex);
    return out;
}

NamePtr nameWithCommonName(const std::string& commonName) {
    NamePtr name(X509_NAME_new());
    if (!name ||
        X509_NAME_add_entry_by_NID(name.get(), NID_commonName, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()),
                                   static_cast<int>(commonName.size()), -1, 0) != 1) {
        fail("cannot build the subject name");
    }
    return name;
}

void setValidity(X509* cert, const Validity& v) {
    std::time_t now = std::time(nullptr);
    const long notBefore = static_cast<long>(v.notBefore.count());
    const long notAfter = notBefore + static_cast<long>(v.lifetime.count());
    if (X509_time_adj_ex(X509_getm_notBefore(cert), 0, notBefore, &now) == nullptr ||
        X509_time_adj_ex(X509_getm_notAfter(cert), 0, notAfter, &now) == nullptr) {
        fail("cannot set the validity");
    }
}

// Adds one extension in openssl.cnf syntax. False when the value does not
// parse (e.g. a malformed IP address).
bool addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    if (!ext) {
        ERR_clear_error();
        return false;
    }
    return X509_add_ext(cert, ext.get(), -1) == 1;
}

void mustAddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
    if (!addExtension(cert, issuer, nid, value)) {
        fail("cannot add extension " + std::string(OBJ_nid2sn(nid)) + "=" + value);
    }
}

enum class Profile { Ca, Server, Client };

// A certificate for `subjectKey` with `subject`, signed by `issuerKey`
// (`issuerCert` null for a self-signed certificate). `sans` is the
// subjectAltName value for server certificates.
X509Ptr makeCertificate(X509_NAME* subject, EVP_PKEY* subjectKey, X509* issuerCert,
                        EVP_PKEY* issuerKey, long serialCounter, const Validity& v, Profile profile,
                        const std::string& sans, const std::string& crlUrl = {}) {
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1) {
        fail("cannot create a certificate");
    }
    const AsnIntPtr serial = makeSerial(serialCounter);
    if (X509_set_serialNumber(cert.get(), serial.get()) != 1 ||
        X509_set_subject_name(cert.get(), subject) != 1 ||
        X509_set_issuer_name(
            cert.get(), issuerCert != nullptr ? X509_get_subject_name(issuerCert) : subject) != 1 ||
        X509_set_pubkey(cert.get(), subjectKey) != 1) {
        fail("cannot fill in the certificate");
    }
    setValidity(cert.get(), v);

    X509* issuer = issuerCert != nullptr ? issuerCert : cert.get();
    // The subject key identifier first: a self-signed certificate's authority
    // key identifier is taken from it.
    mustAddExtension(cert.get(), issuer, NID_subject_key_identifier, "hash");
    mustAddExtension(cert.get(), issuer, NID_authority_key_identifier,
                     issuerCert != nullptr ? "keyid:always" : "keyid");
    switch (profile) {
        case Profile::Ca:
            mustAddExtension(cert.get(), issuer, NID_basic_constraints, "critical,CA:TRUE");
            mustAddExtension(cert.get(), issuer, NID_key_usage, "critical,keyCertSign,cRLSign");
            break;
        case Profile::Server:
            mustAddExtension(cert.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
            mustAddExtension(cert.get(), issuer, NID_key_usage,
                             "critical,digitalSignature,keyEncipherment");
            mustAddExtension(cert.get(), issuer, NID_ext_key_usage, "serverAuth");
            if (!sans.empty() && !addExtension(cert.get(), issuer, NID_subject_alt_name, sans)) {
                throw std::invalid_argument("devca: bad subject alternative names: " + sans);
            }
            break;
        case Profile::Client:
            mustAddExtension(cert.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
            mustAddExtension(cert.get(), issuer, NID_key_usage,
                             "critical,digitalSignature,keyEncipherment");
            mustAddExtension(cert.get(), issuer, NID_ext_key_usage, "clientAuth");
            break;
    }
    if (!crlUrl.empty()) {
        mustAddExtension(cert.get(), issuer, NID_crl_distribution_points, "URI:" + crlUrl);
    }
    if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) {
        fail("cannot sign the certificate");
    }
    return cert;
}

Issued makeIssued(X509Ptr cert, PkeyPtr key) {
    Issued out;
    out.certPem = certToPem(cert.get());
    out.serialHex = serialHexOf(cert.get());
    if (key) {
        out.keyPem = keyToPem(key.get());
    }
    out.cert = std::move(cert);
    out.key = std::move(key);
    return out;
}

// Makes the directory entry of a rename durable.
void syncDirectory(const std::filesystem::path& dir) {
    const platform::UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd) {
        ::fsync(fd.get());
    }
}

}  // namespace

CertificateAuthority CertificateAuthority::createRoot(const std::string& commonName, Validity v) {
    CertificateAuthority ca;
    ca.key_ = newRsaKey();
    const NamePtr subject = nameWithCommonName(commonName);
    ca.cert_ = makeCertificate(subject.get(), ca.key_.get(), nullptr, ca.key_.get(),
                               ca.nextSerial_++, v, Profile::Ca, {});
    ca.certPem_ = certToPem(ca.cert_.get());
    ca.keyPem_ = keyToPem(ca.key_.get());
    return ca;
}

CertificateAuthority CertificateAuthority::load(const std::string& certPem,
                                                const std::string& keyPem) {
    CertificateAuthority ca;
    BioPtr certBio(BIO_new_mem_buf(certPem.data(), static_cast<int>(certPem.size())));
    ca.cert_.reset(certBio ? PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!ca.cert_) {
        ERR_clear_error();
        throw std::runtime_error("devca: no certificate in the CA's PEM text");
    }
    // Whatever follows is the chain above this CA.
    while (X509Ptr parent{PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr)}) {
        ca.parentChainPem_ += certToPem(parent.get());
    }
    ERR_clear_error();
    if (X509_check_ca(ca.cert_.get()) == 0) {
        throw std::runtime_error("devca: the certificate is not a CA certificate");
    }

    BioPtr keyBio(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
    // Without a callback OpenSSL would prompt on the terminal for the
    // password of an encrypted key; refuse such keys instead.
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    ca.key_.reset(keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassword, nullptr)
                         : nullptr);
    if (!ca.key_) {
        ERR_clear_error();
        throw std::runtime_error("devca: no unencrypted private key in the CA key's PEM text");
    }
    if (X509_check_private_key(ca.cert_.get(), ca.key_.get()) != 1) {
        ERR_clear_error();
        throw std::runtime_error("devca: the private key does not belong to the CA certificate");
    }
    ca.certPem_ = certToPem(ca.cert_.get());
    ca.keyPem_ = keyToPem(ca.key_.get());
    return ca;
}

CertificateAuthority CertificateAuthority::createIntermediate(const std::string& commonName,
                                                              Validity v) {
    CertificateAuthority ca;
    ca.key_ = newRsaKey();
    const NamePtr subject = nameWithCommonName(commonName);
    ca.cert_ = makeCertificate(subject.get(), ca.key_.get(), cert_.get(), key_.get(), nextSerial_++,
                               v, Profile::Ca, {}, crlUrl_);
    ca.certPem_ = certToPem(ca.cert_.get());
    ca.keyPem_ = keyToPem(ca.key_.get());
    ca.parentChainPem_ = chainPem();
    return ca;
}

Issued CertificateAuthority::issueServer(const std::string& commonName,
                                         const std::vector<std::string>& dnsNames,
                                         const std::vector<std::string>& ipAddresses, Validity v) {
    std::string sans;
    for (const auto& dns : dnsNames) {
        sans += (sans.empty() ? "DNS:" : ",DNS:") + dns;
    }
    for (const auto& ip : ipAddresses) {
        sans += (sans.empty() ? "IP:" : ",IP:") + ip;
    }
    PkeyPtr key = newRsaKey();
    const NamePtr subject = nameWithCommonName(commonName);
    X509Ptr cert = makeCertificate(subject.get(), key.get(), cert_.get(), key_.get(), nextSerial_++,
                                   v, Profile::Server, sans, crlUrl_);
    return makeIssued(std::move(cert), std::move(key));
}

Issued CertificateAuthority::issueClient(const std::string& commonName, Validity v) {
    PkeyPtr key = newRsaKey();
    const NamePtr subject = nameWithCommonName(commonName);
    X509Ptr cert = makeCertificate(subject.get(), key.get(), cert_.get(), key_.get(), nextSerial_++,
                                   v, Profile::Client, {}, crlUrl_);
    return makeIssued(std::move(cert), std::move(key));
}

std::optional<Issued> CertificateAuthority::signCsr(const std::string& csrPem,
                                                    const std::optional<std::string>& commonName,
                                                    Validity v) {
    if (commonName && commonName->empty()) {
        return std::nullopt;
    }
    BioPtr bio(BIO_new_mem_buf(csrPem.data(), static_cast<int>(csrPem.size())));
    ReqPtr req(bio ? PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!req) {
        ERR_clear_error();
        return std::nullopt;
    }
    EVP_PKEY* requesterKey = X509_REQ_get0_pubkey(req.get());
    if (requesterKey == nullptr || X509_REQ_verify(req.get(), requesterKey) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    NamePtr subject(commonName ? nameWithCommonName(*commonName)
                               : NamePtr(X509_NAME_dup(X509_REQ_get_subject_name(req.get()))));
    if (!subject || X509_NAME_entry_count(subject.get()) == 0) {
        return std::nullopt;
    }
    X509Ptr cert = makeCertificate(subject.get(), requesterKey, cert_.get(), key_.get(),
                                   nextSerial_++, v, Profile::Client, {}, crlUrl_);
    return makeIssued(std::move(cert), nullptr);
}

void CertificateAuthority::revoke(const std::string& serialHex) {
    revoked_.push_back(serialHex);
}

std::string CertificateAuthority::crlPem() const {
    CrlPtr crl(X509_CRL_new());
    if (!crl || X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2) != 1 ||
        X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(cert_.get())) != 1) {
        fail("cannot create a CRL");
    }
    std::time_t now = std::time(nullptr);
    AsnTimePtr lastUpdate(X509_time_adj_ex(nullptr, 0, -3600, &now));
    AsnTimePtr nextUpdate(X509_time_adj_ex(nullptr, 1, 0, &now));
    if (!lastUpdate || !nextUpdate || X509_CRL_set1_lastUpdate(crl.get(), lastUpdate.get()) != 1 ||
        X509_CRL_set1_nextUpdate(crl.get(), nextUpdate.get()) != 1) {
        fail("cannot set the CRL dates");
    }
    for (const auto& hex : revoked_) {
        BIGNUM* raw = nullptr;
        if (BN_hex2bn(&raw, hex.c_str()) == 0) {
            continue;  // not a serial this CA could have issued
        }
        BnPtr bn(raw);
        AsnIntPtr serial(BN_to_ASN1_INTEGER(bn.get(), nullptr));
        RevokedPtr entry(X509_REVOKED_new());
        if (!serial || !entry || X509_REVOKED_set_serialNumber(entry.get(), serial.get()) != 1 ||
            X509_REVOKED_set_revocationDate(entry.get(), lastUpdate.get()) != 1 ||
            X509_CRL_add0_revoked(crl.get(), entry.get()) != 1) {
            fail("cannot add a revoked serial");
        }
        (void)entry.release();  // owned by the CRL now
    }
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert_.get(), nullptr, nullptr, crl.get(), 0);
    ExtPtr aki(X509V3_EXT_conf_nid(nullptr, &ctx, NID_authority_key_identifier, "keyid:always"));
    AsnIntPtr number(ASN1_INTEGER_new());
    if (!aki || !number || X509_CRL_add_ext(crl.get(), aki.get(), -1) != 1 ||
        ASN1_INTEGER_set_int64(number.get(), static_cast<int64_t>(now)) != 1 ||
        X509_CRL_add1_ext_i2d(crl.get(), NID_crl_number, number.get(), 0, 0) != 1) {
        fail("cannot add the CRL extensions");
    }
    X509_CRL_sort(crl.get());
    if (X509_CRL_sign(crl.get(), key_.get(), EVP_sha256()) <= 0) {
        fail("cannot sign the CRL");
    }
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509_CRL(bio.get(), crl.get()) != 1) {
        fail("cannot write the CRL PEM");
    }
    return bioText(bio.get());
}

std::string CertificateAuthority::chainPem() const {
    return certPem_ + parentChainPem_;
}

bool CertificateAuthority::writeFiles(const std::string& certFile,
                                      const std::string& keyFile) const {
    return writePrivateFile(certFile, certPem_) && writePrivateFile(keyFile, keyPem_);
}

bool writePrivateFile(const std::string& path, const std::string& text) {
    if (path.empty()) {
        return false;
    }
    const std::filesystem::path target(path);
    const std::filesystem::path dir =
        target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
    std::string tmp = (dir / ("." + target.filename().string() + ".XXXXXX")).string();
    // mkstemp creates the file with mode 0600 whatever the umask.
    platform::UniqueFd fd(::mkstemp(tmp.data()));
    if (!fd) {
        return false;
    }
    bool ok = ::fchmod(fd.get(), 0600) == 0;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        const ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        ok = n > 0;
        done += ok ? static_cast<std::size_t>(n) : 0;
    }
    ok = ok && ::fsync(fd.get()) == 0;
    ok = ::close(fd.release()) == 0 && ok;
    ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
    if (!ok) {
        ::unlink(tmp.c_str());
        return false;
    }
    syncDirectory(dir);
    return true;
}

std::string serialHexOfPem(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return cert ? serialHexOf(cert.get()) : std::string();
}

}  // namespace ndpx::devca
