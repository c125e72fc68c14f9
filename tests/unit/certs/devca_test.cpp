// The development CA: chains that OpenSSL's verifier accepts, validity
// windows that really are expired or not yet valid, CSR signing, CRLs, a TLS
// handshake with client certificates required, and private file writing.

#include "devca/DevCa.h"
#include "certs/OpenSslUtil.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace ndpx::devca {
namespace {

using certs::BioPtr;
using certs::CrlPtr;
using StorePtr = certs::X509StorePtr;
using StackPtr = certs::X509StackPtr;
using SslCtxPtr = std::unique_ptr<SSL_CTX, certs::OsslDeleter<SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, certs::OsslDeleter<SSL_free>>;

X509Ptr parseCert(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

CrlPtr parseCrl(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return CrlPtr(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
}

// Verifies `leaf` against `root` with the intermediates given; answers the
// verifier's error code (X509_V_OK when accepted).
int verify(X509* leaf, X509* root, const std::vector<X509*>& intermediates, int purpose,
           const std::string& host = {}, X509_CRL* crl = nullptr) {
    StorePtr store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), root);
    if (crl != nullptr) {
        X509_STORE_add_crl(store.get(), crl);
        X509_STORE_set_flags(store.get(), X509_V_FLAG_CRL_CHECK);
    }
    StackPtr untrusted(sk_X509_new_null());
    for (X509* c : intermediates) {
        X509_up_ref(c);
        sk_X509_push(untrusted.get(), c);
    }
    certs::X509StoreCtxPtr ctx(X509_STORE_CTX_new());
    X509_STORE_CTX_init(ctx.get(), store.get(), leaf, untrusted.get());
    X509_STORE_CTX_set_purpose(ctx.get(), purpose);
    if (!host.empty()) {
        X509_VERIFY_PARAM_set1_host(X509_STORE_CTX_get0_param(ctx.get()), host.c_str(), 0);
    }
    const int ok = X509_verify_cert(ctx.get());
    const int err = X509_STORE_CTX_get_error(ctx.get());
    return ok == 1 ? X509_V_OK : (err == X509_V_OK ? -1 : err);
}

std::string makeCsr(EVP_PKEY* key, const std::string& cn) {
    certs::ReqPtr req(X509_REQ_new());
    X509_NAME_add_entry_by_txt(X509_REQ_get_subject_name(req.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_REQ_set_pubkey(req.get(), key);
    X509_REQ_sign(req.get(), key, EVP_sha256());
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_REQ(bio.get(), req.get());
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
}

std::string commonNameOf(X509* cert) {
    char buf[256] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, buf, sizeof buf);
    return buf;
}

// One root and intermediate for the whole suite: RSA key generation is slow.
class DevCaTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new CertificateAuthority(CertificateAuthority::createRoot("Dev Root"));
        intermediate_ = new CertificateAuthority(root_->createIntermediate("Dev Intermediate"));
    }
    static void TearDownTestSuite() {
        delete intermediate_;
        delete root_;
    }
    static CertificateAuthority* root_;
    static CertificateAuthority* intermediate_;
};
CertificateAuthority* DevCaTest::root_ = nullptr;
CertificateAuthority* DevCaTest::intermediate_ = nullptr;

TEST_F(DevCaTest, ServerAndClientChainsVerifyForTheirPurposeOnly) {
    auto server = intermediate_->issueServer("broker", {"broker.test", "localhost"}, {"127.0.0.1"});
    auto client = intermediate_->issueClient("agent-1");

    EXPECT_EQ(verify(server.cert.get(), root_->cert(), {intermediate_->cert()},
                     X509_PURPOSE_SSL_SERVER, "broker.test"),
              X509_V_OK);
    EXPECT_EQ(verify(server.cert.get(), root_->cert(), {intermediate_->cert()},
                     X509_PURPOSE_SSL_SERVER, "other.test"),
              X509_V_ERR_HOSTNAME_MISMATCH);
    EXPECT_EQ(
        verify(client.cert.get(), root_->cert(), {intermediate_->cert()}, X509_PURPOSE_SSL_CLIENT),
        X509_V_OK);
    // The extended key usages keep each certificate to its role.
    EXPECT_EQ(
        verify(client.cert.get(), root_->cert(), {intermediate_->cert()}, X509_PURPOSE_SSL_SERVER),
        X509_V_ERR_INVALID_PURPOSE);
    EXPECT_EQ(
        verify(server.cert.get(), root_->cert(), {intermediate_->cert()}, X509_PURPOSE_SSL_CLIENT),
        X509_V_ERR_INVALID_PURPOSE);
    // Without the intermediate there is no path to the root.
    EXPECT_EQ(verify(client.cert.get(), root_->cert(), {}, X509_PURPOSE_SSL_CLIENT),
              X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);

    // The PEM texts are the same certificates, and the chain text lists the
    // intermediate first, then the root.
    auto parsed = parseCert(server.certPem);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(X509_cmp(parsed.get(), server.cert.get()), 0);
    const std::string chain = intermediate_->chainPem();
    EXPECT_EQ(chain, intermediate_->certPem() + root_->certPem());
    EXPECT_FALSE(server.keyPem.empty());
    EXPECT_NE(server.keyPem.find("BEGIN PRIVATE KEY"), std::string::npos);
}

TEST_F(DevCaTest, CertificatesCarryTheExpectedExtensions) {
    auto server = root_->issueServer("broker", {"broker.test"}, {"127.0.0.1"});
    EXPECT_EQ(X509_check_ip_asc(server.cert.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_host(server.cert.get(), "broker.test", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_ca(server.cert.get()), 0);
    EXPECT_GT(X509_check_ca(root_->cert()), 0);
    EXPECT_GT(X509_check_ca(intermediate_->cert()), 0);
    EXPECT_TRUE(X509_get_key_usage(root_->cert()) & KU_KEY_CERT_SIGN);
    EXPECT_TRUE(X509_get_key_usage(root_->cert()) & KU_CRL_SIGN);
    EXPECT_NE(X509_get0_subject_key_id(server.cert.get()), nullptr);
    // The authority key identifier names the issuer's subject key identifier.
    const ASN1_OCTET_STRING* aki = X509_get0_authority_key_id(server.cert.get());
    ASSERT_NE(aki, nullptr);
    EXPECT_EQ(ASN1_OCTET_STRING_cmp(aki, X509_get0_subject_key_id(root_->cert())), 0);
    EXPECT_EQ(X509_get_signature_nid(server.cert.get()), NID_sha256WithRSAEncryption);
    EXPECT_EQ(EVP_PKEY_get_bits(server.key.get()), 2048);
    EXPECT_THROW(root_->issueServer("bad", {}, {"not-an-ip"}), std::invalid_argument);
}

TEST_F(DevCaTest, SerialNumbersAreUniqueAcrossCertificatesAndAuthorities) {
    std::set<std::string> serials;
    for (int i = 0; i < 3; ++i) {
        serials.insert(root_->issueClient("c").serialHex);
        serials.insert(intermediate_->issueClient("c").serialHex);
    }
    EXPECT_EQ(serials.size(), 6u);
}

TEST_F(DevCaTest, ExpiredAndNotYetValidCertificatesAreRejectedAsSuch) {
    auto expired =
        root_->issueClient("old", Validity{std::chrono::hours(-48), std::chrono::hours(24)});
    auto future =
        root_->issueClient("new", Validity{std::chrono::hours(24), std::chrono::hours(24)});
    EXPECT_EQ(verify(expired.cert.get(), root_->cert(), {}, X509_PURPOSE_SSL_CLIENT),
              X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_EQ(verify(future.cert.get(), root_->cert(), {}, X509_PURPOSE_SSL_CLIENT),
              X509_V_ERR_CERT_NOT_YET_VALID);
    EXPECT_LT(X509_cmp_current_time(X509_get0_notAfter(expired.cert.get())), 0);
    EXPECT_GT(X509_cmp_current_time(X509_get0_notBefore(future.cert.get())), 0);
}

TEST_F(DevCaTest, SigningACsrKeepsTheRequestersKeyAndRefusesBadRequests) {
    PkeyPtr key(EVP_RSA_gen(2048));
    const std::string csr = makeCsr(key.get(), "requested-cn");

    auto fromCsr = intermediate_->signCsr(csr);
    ASSERT_TRUE(fromCsr);
    EXPECT_FALSE(fromCsr->key);
    EXPECT_TRUE(fromCsr->keyPem.empty());
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(fromCsr->cert.get()), key.get()), 1);
    EXPECT_EQ(commonNameOf(fromCsr->cert.get()), "requested-cn");
    EXPECT_EQ(verify(fromCsr->cert.get(), root_->cert(), {intermediate_->cert()},
                     X509_PURPOSE_SSL_CLIENT),
              X509_V_OK);

    auto renamed = intermediate_->signCsr(csr, std::string("agent-identity"));
    ASSERT_TRUE(renamed);
    EXPECT_EQ(commonNameOf(renamed->cert.get()), "agent-identity");

    EXPECT_FALSE(intermediate_->signCsr("not a csr"));
    EXPECT_FALSE(intermediate_->signCsr(csr, std::string()));
    // A request whose signature does not match its content.
    std::string tampered = csr;
    const std::size_t pos = tampered.find('\n', tampered.find("REQUEST")) + 60;
    tampered[pos] = tampered[pos] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(intermediate_->signCsr(tampered));
}

TEST_F(DevCaTest, RevokedSerialsAppearInASignedCrlAndFailVerification) {
    CertificateAuthority ca = root_->createIntermediate("Revoking CA");
    auto good = ca.issueClient("good");
    auto bad = ca.issueClient("bad");
    ca.revoke(bad.serialHex);

    auto crl = parseCrl(ca.crlPem());
    ASSERT_TRUE(crl);
    EXPECT_EQ(X509_CRL_verify(crl.get(), X509_get0_pubkey(ca.cert())), 1);
    EXPECT_EQ(X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), X509_get_subject_name(ca.cert())), 0);
    X509_REVOKED* entry = nullptr;
    EXPECT_EQ(X509_CRL_get0_by_cert(crl.get(), &entry, bad.cert.get()), 1);
    EXPECT_EQ(X509_CRL_get0_by_cert(crl.get(), &entry, good.cert.get()), 0);

    EXPECT_EQ(
        verify(bad.cert.get(), root_->cert(), {ca.cert()}, X509_PURPOSE_SSL_CLIENT, {}, crl.get()),
        X509_V_ERR_CERT_REVOKED);
    // CRL_CHECK checks the leaf only, so the intermediate needs no CRL of the root.
    EXPECT_EQ(
        verify(good.cert.get(), root_->cert(), {ca.cert()}, X509_PURPOSE_SSL_CLIENT, {}, crl.get()),
        X509_V_OK);
}

// Runs a TLS handshake between two in-process endpoints over a BIO pair.
bool handshake(SSL* client, SSL* server) {
    for (int round = 0; round < 100; ++round) {
        const int c = SSL_do_handshake(client);
        const int s = SSL_do_handshake(server);
        if (c == 1 && s == 1) {
            return true;
        }
        const int ce = c == 1 ? SSL_ERROR_NONE : SSL_get_error(client, c);
        const int se = s == 1 ? SSL_ERROR_NONE : SSL_get_error(server, s);
        const auto blocked = [](int e) {
            return e == SSL_ERROR_NONE || e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE;
        };
        if (!blocked(ce) || !blocked(se)) {
            return false;
        }
    }
    return false;
}

bool usePem(SSL_CTX* ctx, const std::string& certPem, const std::string& keyPem) {
    BioPtr certBio(BIO_new_mem_buf(certPem.data(), static_cast<int>(certPem.size())));
    BioPtr keyBio(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
    X509Ptr cert(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
    PkeyPtr key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    return cert && key && SSL_CTX_use_certificate(ctx, cert.get()) == 1 &&
           SSL_CTX_use_PrivateKey(ctx, key.get()) == 1;
}

TEST_F(DevCaTest, MutualTlsHandshakeSucceedsOnlyWithAClientCertificate) {
    auto server = root_->issueServer("broker", {"localhost"}, {"127.0.0.1"});
    auto client = root_->issueClient("agent");
    const auto attempt = [&](bool withClientCert) {
        SslCtxPtr sctx(SSL_CTX_new(TLS_server_method()));
        SslCtxPtr cctx(SSL_CTX_new(TLS_client_method()));
        EXPECT_TRUE(usePem(sctx.get(), server.certPem, server.keyPem));
        if (withClientCert) {
            EXPECT_TRUE(usePem(cctx.get(), client.certPem, client.keyPem));
        }
        for (SSL_CTX* c : {sctx.get(), cctx.get()}) {
            X509_STORE_add_cert(SSL_CTX_get_cert_store(c), root_->cert());
        }
        SSL_CTX_set_verify(sctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        SSL_CTX_set_verify(cctx.get(), SSL_VERIFY_PEER, nullptr);
        SslPtr s(SSL_new(sctx.get()));
        SslPtr c(SSL_new(cctx.get()));
        SSL_set1_host(c.get(), "localhost");
        BIO* cb = nullptr;
        BIO* sb = nullptr;
        BIO_new_bio_pair(&cb, 0, &sb, 0);
        SSL_set_bio(c.get(), cb, cb);
        SSL_set_bio(s.get(), sb, sb);
        SSL_set_connect_state(c.get());
        SSL_set_accept_state(s.get());
        const bool ok = handshake(c.get(), s.get());
        if (ok) {
            EXPECT_EQ(SSL_get_verify_result(c.get()), X509_V_OK);
            X509Ptr peer(SSL_get1_peer_certificate(s.get()));
            EXPECT_TRUE(peer && commonNameOf(peer.get()) == "agent");
        }
        ERR_clear_error();
        return ok;
    };
    EXPECT_TRUE(attempt(true));
    EXPECT_FALSE(attempt(false));
}

TEST(WritePrivateFile, WritesMode0600AndReplacesAtomically) {
    test::TempDir dir;
    const std::string path = (dir.path() / "key.pem").string();
    ASSERT_TRUE(writePrivateFile(path, "first"));
    ASSERT_TRUE(writePrivateFile(path, "second text"));
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::ifstream in(path);
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_EQ(content.str(), "second text");
    // No temporary file is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
    EXPECT_FALSE(writePrivateFile((dir.path() / "missing" / "key.pem").string(), "x"));
    EXPECT_FALSE(writePrivateFile("", "x"));
}

}  // namespace
}  // namespace ndpx::devca
