#include "devcloud/Home.h"

#include "devca/DevCa.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace ndpx::devcloud {
namespace {

namespace fs = std::filesystem;
using devca::PkeyPtr;
using devca::X509Ptr;

struct BioFree {
    void operator()(BIO* b) const { BIO_free_all(b); }
};
struct ExtFree {
    void operator()(X509_EXTENSION* e) const { X509_EXTENSION_free(e); }
};

[[noreturn]] void fail(const std::string& what) {
    char reason[256] = "";
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error("devcloud: " + what + (reason[0] != '\0' ? ": " : "") + reason);
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("devcloud: cannot read " + path.string());
    }
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::unique_ptr<BIO, BioFree> memBio(const std::string& text) {
    return std::unique_ptr<BIO, BioFree>(
        BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string pemOf(X509* cert, EVP_PKEY* key) {
    std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
    const bool ok = bio && (cert == nullptr || PEM_write_bio_X509(bio.get(), cert) == 1) &&
                    (key == nullptr || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0,
                                                                nullptr, nullptr) == 1);
    if (!ok) {
        fail("cannot write PEM");
    }
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
}

void addExt(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, ExtFree> ext(
        X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
    if (!ext || X509_add_ext(cert, ext.get(), -1) != 1) {
        fail("cannot add extension " + value);
    }
}

// The dev CA library makes CAs but cannot load one from files; the folder's
// CA outlives the process, so certificates are signed here with its key.
IssuedPem issueFromStoredCa(const fs::path& caFile, const fs::path& caKeyFile,
                            const std::string& commonName, bool server, const std::string& sans) {
    const std::string caPem = readFile(caFile);
    const std::string caKeyPem = readFile(caKeyFile);
    X509Ptr ca(PEM_read_bio_X509(memBio(caPem).get(), nullptr, nullptr, nullptr));
    PkeyPtr caKey(PEM_read_bio_PrivateKey(memBio(caKeyPem).get(), nullptr, nullptr, nullptr));
    if (!ca || !caKey) {
        fail("cannot load the CA from " + caFile.string());
    }
    PkeyPtr key(EVP_RSA_gen(2048));
    X509Ptr cert(X509_new());
    unsigned char serial[16];
    if (!key || !cert || RAND_bytes(serial, sizeof serial) != 1) {
        fail("cannot create a certificate");
    }
    serial[0] = static_cast<unsigned char>((serial[0] & 0x7f) | 0x40);
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    const bool serialOk =
        bn != nullptr && BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get())) != nullptr;
    BN_free(bn);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    if (!serialOk || X509_set_version(cert.get(), X509_VERSION_3) != 1 ||
        X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(commonName.c_str()),
                                   static_cast<int>(commonName.size()), -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), X509_get_subject_name(ca.get())) != 1 ||
        X509_set_pubkey(cert.get(), key.get()) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600) == nullptr) {
        fail("cannot fill in the certificate");
    }
    addExt(cert.get(), ca.get(), NID_subject_key_identifier, "hash");
    addExt(cert.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
    addExt(cert.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExt(cert.get(), ca.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment");
    addExt(cert.get(), ca.get(), NID_ext_key_usage, server ? "serverAuth" : "clientAuth");
    if (!sans.empty()) {
        addExt(cert.get(), ca.get(), NID_subject_alt_name, sans);
    }
    if (X509_sign(cert.get(), caKey.get(), EVP_sha256()) <= 0) {
        fail("cannot sign the certificate");
    }
    return {pemOf(cert.get(), nullptr), pemOf(nullptr, key.get())};
}

void writeOrThrow(const fs::path& path, const std::string& text) {
    if (!devca::writePrivateFile(path.string(), text)) {
        throw std::runtime_error("devcloud: cannot write " + path.string());
    }
}

}  // namespace

Home::Home(fs::path dir) : dir_(fs::absolute(std::move(dir))) {}

bool Home::hasCa() const {
    return fs::exists(caFile()) && fs::exists(caKeyFile());
}

bool Home::initCa() {
    fs::create_directories(dir_);
    ::chmod(dir_.c_str(), 0700);
    if (hasCa()) {
        return false;
    }
    const auto ca = devca::CertificateAuthority::createRoot("ndpx development CA");
    // The key last: hasCa() then never sees a key without its certificate.
    writeOrThrow(caFile(), ca.certPem());
    writeOrThrow(caKeyFile(), ca.keyPem());
    return true;
}

IssuedPem Home::issueClient(const std::string& commonName) const {
    return issueFromStoredCa(caFile(), caKeyFile(), commonName, false, {});
}

IssuedPem Home::issueServer(const std::string& commonName, const std::vector<std::string>& dnsNames,
                            const std::vector<std::string>& ipAddresses) const {
    std::string sans;
    for (const auto& d : dnsNames) {
        sans += (sans.empty() ? "DNS:" : ",DNS:") + d;
    }
    for (const auto& ip : ipAddresses) {
        sans += (sans.empty() ? "IP:" : ",IP:") + ip;
    }
    return issueFromStoredCa(caFile(), caKeyFile(), commonName, true, sans);
}

TlsFiles Home::writeClient(const std::string& commonName, const std::string& prefix) const {
    const IssuedPem issued = issueClient(commonName);
    TlsFiles files{caFile().string(), prefix + ".pem", prefix + ".key"};
    writeOrThrow(files.keyFile, issued.keyPem);
    writeOrThrow(files.certFile, issued.certPem);
    return files;
}

TlsFiles Home::clientFiles(const std::string& commonName) const {
    const fs::path dir = dir_ / "clients";
    fs::create_directories(dir);
    std::string name = commonName;
    for (char& c : name) {
        c = c == '/' ? '_' : c;  // desktop identifiers may hold slashes
    }
    const std::string prefix = (dir / name).string();
    if (fs::exists(prefix + ".pem") && fs::exists(prefix + ".key")) {
        return {caFile().string(), prefix + ".pem", prefix + ".key"};
    }
    return writeClient(commonName, prefix);
}

}  // namespace ndpx::devcloud
