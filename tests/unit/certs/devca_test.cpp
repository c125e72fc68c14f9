// The development CA: chains that OpenSSL's verifier accepts, validity
// windows that really are expired or not yet valid, CSR signing, CRLs, CAs
// loaded from PEM and private file writing. (Its certificates in real TLS
// handshakes: the broker fixture's tests.)

#include "certs/OpenSslUtil.h"
#include "support/TempDir.h"
#include "unit/certs/CertFixture.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <set>

namespace ndpx::devca {
namespace {

using certs::BioPtr;
using StorePtr = certs::X509StorePtr;
using StackPtr = certs::X509StackPtr;

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

// The test program's CA hierarchy: RSA key generation is slow.
CertificateAuthority& root() {
    return certs::test::TestPki::get().root;
}
CertificateAuthority& intermediate() {
    return certs::test::TestPki::get().issuing;
}

TEST(DevCa, VerifierAcceptsEachCertificateForItsRoleNameTimeAndRevocation) {
    const auto server =
        intermediate().issueServer("broker", {"broker.test", "localhost"}, {"127.0.0.1"});
    const auto client = intermediate().issueClient("agent-1");
    const auto expired =
        root().issueClient("old", Validity{std::chrono::hours(-48), std::chrono::hours(24)});
    const auto future =
        root().issueClient("new", Validity{std::chrono::hours(24), std::chrono::hours(24)});
    CertificateAuthority revoking = root().createIntermediate("Revoking CA");
    const auto good = revoking.issueClient("good");
    const auto bad = revoking.issueClient("bad");
    revoking.revoke(bad.serialHex);
    const auto crl = certs::crlFromPem(revoking.crlPem());
    ASSERT_TRUE(crl);
    const std::vector<X509*> chain{intermediate().cert()};
    struct Case {
        const Issued& issued;
        std::vector<X509*> intermediates;
        int purpose;
        std::string host;
        int expected;
        X509_CRL* crl = nullptr;
    };
    const Case cases[] = {
        {server, chain, X509_PURPOSE_SSL_SERVER, "broker.test", X509_V_OK},
        {server, chain, X509_PURPOSE_SSL_SERVER, "other.test", X509_V_ERR_HOSTNAME_MISMATCH},
        {client, chain, X509_PURPOSE_SSL_CLIENT, "", X509_V_OK},
        // The extended key usages keep each certificate to its role.
        {client, chain, X509_PURPOSE_SSL_SERVER, "", X509_V_ERR_INVALID_PURPOSE},
        {server, chain, X509_PURPOSE_SSL_CLIENT, "", X509_V_ERR_INVALID_PURPOSE},
        // Without the intermediate there is no path to the root.
        {client, {}, X509_PURPOSE_SSL_CLIENT, "", X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY},
        {expired, {}, X509_PURPOSE_SSL_CLIENT, "", X509_V_ERR_CERT_HAS_EXPIRED},
        {future, {}, X509_PURPOSE_SSL_CLIENT, "", X509_V_ERR_CERT_NOT_YET_VALID},
        // The verifier checks the CRL's issuer and signature before its
        // entries; CRL_CHECK checks the leaf only, so the intermediate needs
        // no CRL of the root.
        {bad, {revoking.cert()}, X509_PURPOSE_SSL_CLIENT, "", X509_V_ERR_CERT_REVOKED, crl.get()},
        {good, {revoking.cert()}, X509_PURPOSE_SSL_CLIENT, "", X509_V_OK, crl.get()},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(
            verify(c.issued.cert.get(), root().cert(), c.intermediates, c.purpose, c.host, c.crl),
            c.expected)
            << certs::commonNameOf(c.issued.cert.get()) << " " << c.purpose << " " << c.host;
    }
}

TEST(DevCa, CertificatesCarryTheExpectedExtensionsPemAndUniqueSerials) {
    auto server = root().issueServer("broker", {"broker.test"}, {"127.0.0.1"});
    EXPECT_EQ(X509_check_ip_asc(server.cert.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_host(server.cert.get(), "broker.test", 0, 0, nullptr), 1);
    EXPECT_EQ(X509_check_ca(server.cert.get()), 0);
    EXPECT_GT(X509_check_ca(root().cert()), 0);
    EXPECT_GT(X509_check_ca(intermediate().cert()), 0);
    EXPECT_TRUE(X509_get_key_usage(root().cert()) & KU_KEY_CERT_SIGN);
    EXPECT_TRUE(X509_get_key_usage(root().cert()) & KU_CRL_SIGN);
    // The authority key identifier names the issuer's subject key identifier.
    const ASN1_OCTET_STRING* aki = X509_get0_authority_key_id(server.cert.get());
    ASSERT_NE(aki, nullptr);
    EXPECT_NE(X509_get0_subject_key_id(server.cert.get()), nullptr);
    EXPECT_EQ(ASN1_OCTET_STRING_cmp(aki, X509_get0_subject_key_id(root().cert())), 0);
    EXPECT_EQ(X509_get_signature_nid(server.cert.get()), NID_sha256WithRSAEncryption);
    EXPECT_EQ(EVP_PKEY_get_bits(server.key.get()), 2048);
    EXPECT_THROW(root().issueServer("bad", {}, {"not-an-ip"}), std::invalid_argument);

    // The PEM texts are the same certificate and key; the chain text lists
    // the intermediate first, then the root.
    EXPECT_EQ(X509_cmp(certs::x509FromPem(server.certPem).get(), server.cert.get()), 0);
    EXPECT_NE(server.keyPem.find("BEGIN PRIVATE KEY"), std::string::npos);
    EXPECT_EQ(intermediate().chainPem(), intermediate().certPem() + root().certPem());

    std::set<std::string> serials{server.serialHex};
    for (int i = 0; i < 2; ++i) {
        serials.insert(root().issueClient("c").serialHex);
        serials.insert(intermediate().issueClient("c").serialHex);
    }
    EXPECT_EQ(serials.size(), 5u);
}

TEST(DevCa, SigningACsrKeepsTheRequestersKeyAndRefusesBadRequests) {
    PkeyPtr key(EVP_RSA_gen(2048));
    const std::string csr = makeCsr(key.get(), "requested-cn");

    auto fromCsr = intermediate().signCsr(csr);
    ASSERT_TRUE(fromCsr);
    EXPECT_FALSE(fromCsr->key);
    EXPECT_TRUE(fromCsr->keyPem.empty());
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(fromCsr->cert.get()), key.get()), 1);
    EXPECT_EQ(certs::commonNameOf(fromCsr->cert.get()), "requested-cn");
    EXPECT_EQ(verify(fromCsr->cert.get(), root().cert(), {intermediate().cert()},
                     X509_PURPOSE_SSL_CLIENT),
              X509_V_OK);

    auto renamed = intermediate().signCsr(csr, std::string("agent-identity"));
    ASSERT_TRUE(renamed);
    EXPECT_EQ(certs::commonNameOf(renamed->cert.get()), "agent-identity");

    EXPECT_FALSE(intermediate().signCsr("not a csr"));
    EXPECT_FALSE(intermediate().signCsr(csr, std::string()));
    // A request whose signature does not match its content.
    std::string tampered = csr;
    const std::size_t pos = tampered.find('\n', tampered.find("REQUEST")) + 60;
    tampered[pos] = tampered[pos] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(intermediate().signCsr(tampered));
}

TEST(DevCa, ALoadedCaSignsForItsChainAndRefusesWhatIsNoCaOfItsKey) {
    ERR_clear_error();  // what earlier tests left is not this test's concern
    auto loaded = CertificateAuthority::load(root().certPem(), root().keyPem());
    EXPECT_EQ(loaded.certPem(), root().certPem());
    EXPECT_EQ(X509_verify(loaded.issueClient("agent").cert.get(), X509_get0_pubkey(root().cert())),
              1);
    // An intermediate with its chain behind it keeps the chain.
    const auto inter =
        CertificateAuthority::load(intermediate().chainPem(), intermediate().keyPem());
    EXPECT_EQ(inter.chainPem(), intermediate().chainPem());

    const auto leaf = root().issueClient("leaf");
    EXPECT_THROW(CertificateAuthority::load("garbage", root().keyPem()), std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(root().certPem(), "garbage"), std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(root().certPem(), intermediate().keyPem()),
                 std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(leaf.certPem, leaf.keyPem), std::runtime_error);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(WritePrivateFile, WritesMode0600AndReplacesAtomically) {
    test::TempDir dir;
    const auto path = dir.path() / "key.pem";
    ASSERT_TRUE(writePrivateFile(path, "first"));
    ASSERT_TRUE(writePrivateFile(path, "second text"));
    EXPECT_EQ(certs::test::modeOf(path), 0600u);
    EXPECT_EQ(certs::test::readFile(path), "second text");
    // No temporary file is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
    EXPECT_FALSE(writePrivateFile((dir.path() / "missing" / "key.pem").string(), "x"));
    EXPECT_FALSE(writePrivateFile("", "x"));
}

}  // namespace
}  // namespace ndpx::devca
