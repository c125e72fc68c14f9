#pragma once
// Owners for OpenSSL objects and the conversions the certificate store needs:
// PEM and DER certificates and CRLs, private keys as MS private-key blob and
// PKCS#1 DER, names as text.

#include "certs/OpenSslCertificate.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/decoder.h>
#include <openssl/encoder.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::certs {

template <auto Fn>
struct OsslDeleter {
    template <typename T>
    void operator()(T* p) const {
        Fn(p);
    }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, OsslDeleter<EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, OsslDeleter<BIO_free_all>>;
using ReqPtr = std::unique_ptr<X509_REQ, OsslDeleter<X509_REQ_free>>;
using CrlPtr = std::unique_ptr<X509_CRL, OsslDeleter<X509_CRL_free>>;
using NamePtr = std::unique_ptr<X509_NAME, OsslDeleter<X509_NAME_free>>;
using X509StorePtr = std::unique_ptr<X509_STORE, OsslDeleter<X509_STORE_free>>;
using X509StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, OsslDeleter<X509_STORE_CTX_free>>;
using Pkcs12Ptr = std::unique_ptr<PKCS12, OsslDeleter<PKCS12_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OsslDeleter<EVP_PKEY_CTX_free>>;
using EncoderCtxPtr = std::unique_ptr<OSSL_ENCODER_CTX, OsslDeleter<OSSL_ENCODER_CTX_free>>;
using DecoderCtxPtr = std::unique_ptr<OSSL_DECODER_CTX, OsslDeleter<OSSL_DECODER_CTX_free>>;

struct X509StackDeleter {
    void operator()(STACK_OF(X509) * p) const { sk_X509_pop_free(p, X509_free); }
};
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackDeleter>;

// Memory that held key material is wiped before it is given back.
template <typename T>
struct CleansingAllocator {
    using value_type = T;
    CleansingAllocator() = default;
    template <typename U>
    CleansingAllocator(const CleansingAllocator<U>&) {}
    T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
    void deallocate(T* p, std::size_t n) {
        OPENSSL_cleanse(p, n * sizeof(T));
        std::allocator<T>().deallocate(p, n);
    }
    template <typename U>
    bool operator==(const CleansingAllocator<U>&) const {
        return true;
    }
};
using SecretBytes = std::vector<std::uint8_t, CleansingAllocator<std::uint8_t>>;

// Discards OpenSSL's error queue; answers the last error for a log line.
unsigned long takeOpenSslError();

std::string bioToString(BIO* bio);

X509Ptr x509FromPem(const std::string& pem);  // the first certificate of the text
X509Ptr x509FromDer(const std::vector<std::uint8_t>& der);
std::string x509ToPem(X509* cert);
std::vector<std::uint8_t> x509ToDer(X509* cert);
// Every certificate of a PEM bundle; unreadable entries are skipped.
std::vector<X509Ptr> x509sFromPemBundle(const std::string& text);

CrlPtr crlFromPem(const std::string& pem);
CrlPtr crlFromDer(const std::vector<std::uint8_t>& der);
std::vector<std::uint8_t> crlToDer(X509_CRL* crl);

PkeyPtr newRsaKey(int bits);
// MS private-key blob ("PRIVATEKEYBLOB", RSA key exchange) <-> key.
PkeyPtr keyFromBlob(const std::vector<std::uint8_t>& blob);
bool keyToBlob(EVP_PKEY* key, std::vector<std::uint8_t>& blob);
// Type-specific DER (PKCS#1 RSAPrivateKey) <-> key.
bool keyToDer(EVP_PKEY* key, SecretBytes& der);
PkeyPtr keyFromDer(const SecretBytes& der);
PkeyPtr keyFromDer(const std::vector<std::uint8_t>& der);

// The subject common name (UTF-8), empty when there is none.
std::string commonNameOf(X509* cert);
// A distinguished name in RFC 2253 form.
std::string nameToText(const X509_NAME* name);
// Upper-case hexadecimal serial number.
std::string serialHexOf(X509* cert);
// Colon-joined upper-case hexadecimal SHA-256 of the DER encoding.
std::string thumbprintOf(X509* cert);

// `s` without trailing blanks, tabs, CR and LF.
std::string trimTrailingWhitespace(const std::string& s);

}  // namespace ndpx::certs
