#include "certs/OpenSslUtil.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <climits>

namespace ndpx::certs {

namespace {

BioPtr memBuffer(const void* data, std::size_t size) {
    if (size > static_cast<std::size_t>(INT_MAX)) {
        return nullptr;
    }
    return BioPtr(BIO_new_mem_buf(data, static_cast<int>(size)));
}

// Runs an encoder over `key` into `out`; `out` only ever holds key material
// in wiped memory when it is a SecretBytes.
template <typename Buffer>
bool encodeKey(EVP_PKEY* key, const char* format, const char* structure, Buffer& out) {
    EncoderCtxPtr ctx(OSSL_ENCODER_CTX_new_for_pkey(key, OSSL_KEYMGMT_SELECT_KEYPAIR, format,
                                                    structure, nullptr));
    if (!ctx || OSSL_ENCODER_CTX_get_num_encoders(ctx.get()) == 0) {
        return false;
    }
    unsigned char* data = nullptr;
    std::size_t size = 0;
    if (OSSL_ENCODER_to_data(ctx.get(), &data, &size) != 1) {
        return false;
    }
    out.assign(data, data + size);
    OPENSSL_clear_free(data, size);
    return true;
}

PkeyPtr decodeKey(const unsigned char* data, std::size_t size, const char* format) {
    EVP_PKEY* key = nullptr;
    DecoderCtxPtr ctx(OSSL_DECODER_CTX_new_for_pkey(&key, format, nullptr, "RSA",
                                                    OSSL_KEYMGMT_SELECT_KEYPAIR, nullptr, nullptr));
    if (!ctx || OSSL_DECODER_CTX_get_num_decoders(ctx.get()) == 0) {
        return nullptr;
    }
    const unsigned char* p = data;
    std::size_t left = size;
    if (OSSL_DECODER_from_data(ctx.get(), &p, &left) != 1 || key == nullptr) {
        EVP_PKEY_free(key);
        return nullptr;
    }
    PkeyPtr out(key);
    // A blob or DER text with only the public half is not a private key.
    BIGNUM* d = nullptr;
    const bool hasPrivate = EVP_PKEY_get_bn_param(out.get(), "d", &d) == 1 && d != nullptr;
    BN_clear_free(d);
    return hasPrivate && left == 0 ? std::move(out) : nullptr;
}

}  // namespace

unsigned long takeOpenSslError() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    return code;
}

std::string bioToString(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    return n > 0 && data != nullptr ? std::string(data, static_cast<std::size_t>(n))
                                    : std::string();
}

X509Ptr x509FromPem(const std::string& pem) {
    BioPtr bio = memBuffer(pem.data(), pem.size());
    X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!cert) {
        ERR_clear_error();
    }
    return cert;
}

X509Ptr x509FromDer(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    X509Ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!cert) {
        ERR_clear_error();
    }
    return cert;
}

std::string x509ToPem(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || cert == nullptr || PEM_write_bio_X509(bio.get(), cert) != 1) {
        ERR_clear_error();
        return {};
    }
    return bioToString(bio.get());
}

std::vector<std::uint8_t> x509ToDer(X509* cert) {
    unsigned char* data = nullptr;
    const int n = cert != nullptr ? i2d_X509(cert, &data) : -1;
    if (n <= 0) {
        ERR_clear_error();
        return {};
    }
    std::vector<std::uint8_t> out(data, data + n);
    OPENSSL_free(data);
    return out;
}

std::vector<X509Ptr> x509sFromPemBundle(const std::string& text) {
    std::vector<X509Ptr> out;
    BioPtr bio = memBuffer(text.data(), text.size());
    if (!bio) {
        return out;
    }
    // PEM_X509_INFO_read_bio skips what it cannot use; a bad certificate in
    // the middle of a bundle does not hide the ones after it.
    STACK_OF(X509_INFO)* infos = PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr);
    ERR_clear_error();
    if (infos == nullptr) {
        return out;
    }
    for (int i = 0; i < sk_X509_INFO_num(infos); ++i) {
        X509_INFO* info = sk_X509_INFO_value(infos, i);
        if (info->x509 != nullptr) {
            out.emplace_back(shareX509(info->x509));
        }
    }
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
    return out;
}

CrlPtr crlFromPem(const std::string& pem) {
    BioPtr bio = memBuffer(pem.data(), pem.size());
    CrlPtr crl(bio ? PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!crl) {
        ERR_clear_error();
    }
    return crl;
}

CrlPtr crlFromDer(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
    if (!crl) {
        ERR_clear_error();
    }
    return crl;
}

std::vector<std::uint8_t> crlToDer(X509_CRL* crl) {
    unsigned char* data = nullptr;
    const int n = i2d_X509_CRL(crl, &data);
    if (n <= 0) {
        ERR_clear_error();
        return {};
    }
    std::vector<std::uint8_t> out(data, data + n);
    OPENSSL_free(data);
    return out;
}

PkeyPtr newRsaKey(int bits) {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) != 1 ||
        EVP_PKEY_generate(ctx.get(), &key) != 1) {
        return nullptr;
    }
    return PkeyPtr(key);
}

PkeyPtr keyFromBlob(const std::vector<std::uint8_t>& blob) {
    if (blob.empty()) {
        return nullptr;
    }
    PkeyPtr key = decodeKey(blob.data(), blob.size(), "MSBLOB");
    ERR_clear_error();
    return key;
}

bool keyToBlob(EVP_PKEY* key, std::vector<std::uint8_t>& blob) {
    const bool ok = key != nullptr && encodeKey(key, "MSBLOB", nullptr, blob);
    ERR_clear_error();
    return ok;
}

bool keyToDer(EVP_PKEY* key, SecretBytes& der) {
    const bool ok = key != nullptr && encodeKey(key, "DER", "type-specific", der);
    ERR_clear_error();
    return ok;
}

PkeyPtr keyFromDer(const SecretBytes& der) {
    PkeyPtr key = der.empty() ? nullptr : decodeKey(der.data(), der.size(), "DER");
    ERR_clear_error();
    return key;
}

PkeyPtr keyFromDer(const std::vector<std::uint8_t>& der) {
    PkeyPtr key = der.empty() ? nullptr : decodeKey(der.data(), der.size(), "DER");
    ERR_clear_error();
    return key;
}

std::string commonNameOf(X509* cert) {
    if (cert == nullptr) {
        return {};
    }
    const X509_NAME* name = X509_get_subject_name(cert);
    const int index = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (index < 0) {
        return {};
    }
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index));
    unsigned char* utf8 = nullptr;
    const int n = ASN1_STRING_to_UTF8(&utf8, data);
    if (n < 0) {
        ERR_clear_error();
        return {};
    }
    std::string out(reinterpret_cast<char*>(utf8), static_cast<std::size_t>(n));
    OPENSSL_free(utf8);
    return out;
}

std::string nameToText(const X509_NAME* name) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || name == nullptr ||
        X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) {
        ERR_clear_error();
        return {};
    }
    return bioToString(bio.get());
}

std::string serialHexOf(X509* cert) {
    if (cert == nullptr) {
        return {};
    }
    std::unique_ptr<BIGNUM, OsslDeleter<BN_free>> bn(
        ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    char* hex = bn ? BN_bn2hex(bn.get()) : nullptr;
    if (hex == nullptr) {
        ERR_clear_error();
        return {};
    }
    std::string out(hex);
    OPENSSL_free(hex);
    return out;
}

std::string thumbprintOf(X509* cert) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (cert == nullptr || X509_digest(cert, EVP_sha256(), md, &n) != 1) {
        ERR_clear_error();
        return {};
    }
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned i = 0; i < n; ++i) {
        if (i > 0) {
            out += ':';
        }
        out += kDigits[md[i] >> 4];
        out += kDigits[md[i] & 0x0f];
    }
    return out;
}

std::string trimTrailingWhitespace(const std::string& s) {
    const std::size_t end = s.find_last_not_of(" \t\r\n");
    return end == std::string::npos ? std::string() : s.substr(0, end + 1);
}

}  // namespace ndpx::certs
