// The Linux certificate and key store over a real SQLite file and real
// OpenSSL objects: keys and their blob forms, requests checked by the openssl
// tool, import and find rules, deletion, PKCS#12 export, file modes, chains,
// the SSL policy and revocation.

#include "certs/OpenSslUtil.h"
#include "support/Process.h"
#include "unit/certs/CertFixture.h"

#include <openssl/pkcs12.h>
#include <openssl/x509v3.h>

namespace ndpx::certs::test {
namespace {

using devca::Validity;

ReqPtr parseReq(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    return ReqPtr(d2i_X509_REQ(nullptr, &p, static_cast<long>(der.size())));
}

std::string reqToPem(const std::vector<std::uint8_t>& der) {
    const ReqPtr req = parseReq(der);
    BioPtr bio(BIO_new(BIO_s_mem()));
    return req && PEM_write_bio_X509_REQ(bio.get(), req.get()) == 1 ? bioToString(bio.get()) : "";
}

// The subject of a DER request as (short name, ASN.1 string type) pairs.
std::vector<std::pair<std::string, int>> subjectOf(const std::vector<std::uint8_t>& der,
                                                   std::vector<std::string>* values = nullptr) {
    const ReqPtr req = parseReq(der);
    std::vector<std::pair<std::string, int>> out;
    const X509_NAME* name = req ? X509_REQ_get_subject_name(req.get()) : nullptr;
    for (int i = 0; name != nullptr && i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(e);
        out.emplace_back(OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(e))),
                         ASN1_STRING_type(data));
        if (values != nullptr) {
            values->emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)),
                                 static_cast<std::size_t>(ASN1_STRING_length(data)));
        }
    }
    return out;
}

// A PKCS#1 DER private key, decoded by a call the store does not use.
PkeyPtr pkcs1Key(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    return PkeyPtr(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
}

std::size_t countNamed(OpenSslCertStore& store, const std::string& storeName,
                       const std::string& friendlyName) {
    std::size_t n = 0;
    for (const auto& c : store.EnumerateCertificates(store.OpenCertificateStore(storeName))) {
        n += c.friendlyName == friendlyName ? 1 : 0;
    }
    return n;
}

using CertStoreTest = CertTest;

TEST_F(CertStoreTest, GeneratedKeysComeAsMsBlobAndPkcs1AndReplaceEarlierOnes) {
    std::vector<std::uint8_t> blob, pkcs1, blob2, pkcs2;
    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("{C-1}", blob, pkcs1));
    // PRIVATEKEYBLOB, version 2, key exchange RSA, "RSA2", 2048 bits.
    ASSERT_GT(blob.size(), 20u);
    EXPECT_EQ(blob[0], 0x07);
    EXPECT_EQ(blob[1], 0x02);
    EXPECT_EQ(std::vector<std::uint8_t>(blob.begin() + 4, blob.begin() + 16),
              (std::vector<std::uint8_t>{0x00, 0xa4, 0x00, 0x00, 'R', 'S', 'A', '2', 0x00, 0x08,
                                         0x00, 0x00}));
    // The two forms hold the same key; decoded here by other OpenSSL calls.
    const unsigned char* b = blob.data();
    const PkeyPtr fromBlob(b2i_PrivateKey(&b, static_cast<long>(blob.size())));
    const PkeyPtr fromDer = pkcs1Key(pkcs1);
    ASSERT_TRUE(fromBlob && fromDer);
    EXPECT_EQ(EVP_PKEY_eq(fromBlob.get(), fromDer.get()), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(fromDer.get()), 2048);
    EXPECT_TRUE(store_->KeyExists("{c-1}"));  // container names ignore case

    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("{C-1}", blob2, pkcs2));
    EXPECT_NE(blob, blob2);
    // The request is now signed by the second key: the first one is gone.
    std::vector<std::uint8_t> csr;
    ASSERT_TRUE(store_->GenerateCSRUsingWin32API("{C-1}", "agent", "", "", "", "", csr));
    const ReqPtr req = parseReq(csr);
    ASSERT_TRUE(req);
    EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(req.get()), fromDer.get()), 0);
    EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(req.get()), pkcs1Key(pkcs2).get()), 1);

    EXPECT_FALSE(store_->GenerateKeyUsingWin32API("", blob, pkcs1));
    EXPECT_TRUE(blob.empty());
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::GenerateKeyUsingWin32API(): Empty container named provided."));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptExportKey succeeded, size "
        "required=" +
        std::to_string(blob2.size()) + "."));
}

TEST_F(CertStoreTest, RequestsVerifyWithTheOpensslToolAndListTheSubjectInOrder) {
    std::vector<std::uint8_t> blob, pkcs1, csr;
    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("csr-key", blob, pkcs1));
    ASSERT_TRUE(store_->GenerateCSRUsingWin32API("csr-key", "agent-01", "Desktops", "Example Org",
                                                 "Some State", "US", csr));
    const auto file = reg_.root() / "req.pem";
    std::ofstream(file) << reqToPem(csr);
    const auto result =
        ndpx::test::run({"/usr/bin/openssl", "req", "-in", file.string(), "-verify", "-noout"});
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("verify OK"), std::string::npos) << result.output;

    std::vector<std::string> values;
    EXPECT_EQ(subjectOf(csr, &values),
              (std::vector<std::pair<std::string, int>>{{"CN", V_ASN1_PRINTABLESTRING},
                                                        {"OU", V_ASN1_PRINTABLESTRING},
                                                        {"O", V_ASN1_PRINTABLESTRING},
                                                        {"ST", V_ASN1_PRINTABLESTRING},
                                                        {"C", V_ASN1_PRINTABLESTRING}}));
    EXPECT_EQ(values, (std::vector<std::string>{"agent-01", "Desktops", "Example Org", "Some State",
                                                "US"}));
    EXPECT_EQ(X509_REQ_get_signature_nid(parseReq(csr).get()), NID_sha256WithRSAEncryption);
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::GenerateCSRUsingWin32API(): Using common name = agent-01"));

    // Empty attributes are left out; an identity with '_' is no PrintableString.
    ASSERT_TRUE(store_->GenerateCSRUsingWin32API("csr-key", "E1ST_VM9", "", "Org", "", "", csr));
    EXPECT_EQ(subjectOf(csr), (std::vector<std::pair<std::string, int>>{
                                  {"CN", V_ASN1_UTF8STRING}, {"O", V_ASN1_PRINTABLESTRING}}));

    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("csr-key", "", "", "", "", "", csr));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::GenerateCSRUsingWin32API(): Empty common name provided."));
    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("", "cn", "", "", "", "", csr));
    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("no-such-key", "cn", "", "", "", "", csr));
    EXPECT_TRUE(csr.empty());
}

TEST_F(CertStoreTest, FindMatchesFriendlyNameExactlyAndCommonNameWithoutCaseOrTrailingBlanks) {
    const auto a = client("Agent-A");
    const auto b = client("Agent-B \t");
    ASSERT_TRUE(store_->ImportCertificateToStore(a.issued.certPem, "My", "Shared", a.blob, "key-a",
                                                 nullptr));
    ASSERT_TRUE(store_->ImportCertificateToStore(b.issued.certPem, "My", "Shared", b.blob, "key-b",
                                                 nullptr));
    const auto my = store_->OpenCertificateStore("My");

    auto found = store_->FindCertificate(my, "Shared", "agent-b");
    ASSERT_TRUE(found);
    EXPECT_EQ(X509_cmp(found->cert.get(), b.issued.cert.get()), 0);
    EXPECT_EQ(found->keyContainer, "key-b");
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::FindCertificate(): Ignoring cert with CN mismatch: Agent-A"));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::FindCertificate(): Found matching certificate with common "
        "name=Agent-B"));

    found = store_->FindCertificate(my, "Shared", "AGENT-A  ");
    ASSERT_TRUE(found);
    EXPECT_EQ(X509_cmp(found->cert.get(), a.issued.cert.get()), 0);
    // Without a common name the first of the name is the answer.
    found = store_->FindCertificate(my, "Shared", "");
    ASSERT_TRUE(found);
    EXPECT_EQ(X509_cmp(found->cert.get(), a.issued.cert.get()), 0);

    EXPECT_FALSE(store_->FindCertificate(my, "shared", ""));  // friendly names keep their case
    EXPECT_FALSE(store_->FindCertificate(my, "Shared", "Agent-C"));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::FindCertificate(): Certificate with friendly name 'Shared' and common "
        "name 'Agent-C' not found. err="));
    EXPECT_FALSE(store_->FindCertificate(my, "", ""));
    EXPECT_FALSE(store_->FindCertificate(nullptr, "Shared", ""));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::FindCertificate(): NULL Certificate name provided."));
    // Another store does not see them.
    EXPECT_FALSE(store_->FindCertificate(store_->OpenCertificateStore("Root"), "Shared", ""));
}

TEST_F(CertStoreTest, ImportReplacesTheSameCertificateAndRefusesAForeignKey) {
    const auto a = client("agent");
    const auto other = client("other");
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(store_->ImportCertificateToStore(a.issued.certPem, "My", "Client", a.blob,
                                                     "key-a", nullptr));
    }
    EXPECT_EQ(store_->EnumerateCertificates(store_->OpenCertificateStore("My")).size(), 1u);
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ImportCertificate(): friendlyName is present so will be set"));

    // A key that does not belong to the certificate is not bound, and the
    // certificate is not added.
    EXPECT_FALSE(store_->ImportCertificateToStore(other.issued.certPem, "My", "Other", a.blob,
                                                  "key-x", nullptr));
    EXPECT_FALSE(store_->KeyExists("key-x"));
    EXPECT_EQ(store_->EnumerateCertificates(store_->OpenCertificateStore("My")).size(), 1u);
    // A CA certificate goes in without a key.
    EXPECT_TRUE(
        store_->ImportCertificateToStore(pki().issuing.certPem(), "My", "", {}, "", nullptr));
    EXPECT_FALSE(store_->ImportCertificateToStore("garbage", "My", "X", {}, "", nullptr));
    EXPECT_FALSE(store_->ImportCertificateToStore(a.issued.certPem, "", "X", {}, "", nullptr));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ImportCertificateToStore(): Empty certificate store name has been "
        "provided."));
    EXPECT_FALSE(
        store_->ImportCertificateToStore(a.issued.certPem, "My", "X", {}, "key-a", nullptr));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::SetPrivateKeyForCertificateInStore(): Invalid parameters provided"));
    EXPECT_EQ(store_->EnumerateCertificates(store_->OpenCertificateStore("My")).size(), 2u);

    // Binding a key to a certificate already in the store.
    auto ca = store_->FindCertificate(store_->OpenCertificateStore("My"), "Test Issuing CA", "");
    ASSERT_TRUE(ca);  // found by its common name: it has no friendly name
    auto stored = store_->FindCertificate(store_->OpenCertificateStore("My"), "Client", "");
    ASSERT_TRUE(stored);
    ASSERT_TRUE(store_->SetPrivateKeyForCertificateInStore(*stored, a.blob, "key-a2"));
    EXPECT_EQ(
        store_->FindCertificate(store_->OpenCertificateStore("My"), "Client", "")->keyContainer,
        "key-a2");
}

TEST_F(CertStoreTest, DeletingRemovesCertificatesAndKeysNoLongerBound) {
    const auto a = client("a");
    const auto b = client("b");
    const auto c = client("c");
    ASSERT_TRUE(store_->ImportCertificateToStore(a.issued.certPem, "My", "Gone", a.blob, "ka", {}));
    ASSERT_TRUE(store_->ImportCertificateToStore(b.issued.certPem, "My", "Gone", b.blob, "kb", {}));
    ASSERT_TRUE(store_->ImportCertificateToStore(c.issued.certPem, "My", "Kept", c.blob, "kc", {}));

    EXPECT_TRUE(store_->DeleteCertificates("My", "Gone"));
    EXPECT_EQ(reg_.log().count(
                  "OpenSslCertStore::DeleteCertificates(): Deleted certificate with friendly name "
                  "Gone"),
              2u);
    EXPECT_EQ(countNamed(*store_, "My", "Gone"), 0u);
    EXPECT_EQ(countNamed(*store_, "My", "Kept"), 1u);
    EXPECT_FALSE(store_->KeyExists("ka"));
    EXPECT_FALSE(store_->KeyExists("kb"));
    EXPECT_TRUE(store_->KeyExists("kc"));
    EXPECT_TRUE(store_->DeleteCertificates("My", "Gone"));  // nothing left to delete

    auto kept = store_->FindCertificate(store_->OpenCertificateStore("My"), "Kept", "");
    ASSERT_TRUE(kept);
    EXPECT_TRUE(store_->DeleteCertificate(*kept));
    EXPECT_FALSE(store_->KeyExists("kc"));
    EXPECT_FALSE(store_->DeleteCertificate(*kept));
    EXPECT_FALSE(store_->DeleteCertificate(CertContext(shareX509(c.issued.cert.get()))));
}

TEST_F(CertStoreTest, Pkcs12ExportCarriesCertificateAndKeyAndRefusesAKeyThatMayNotLeave) {
    const auto a = client("exported");
    ASSERT_TRUE(store_->ImportCertificateToStore(a.issued.certPem, "My", "Exp", a.blob, "ke", {}));
    ASSERT_TRUE(store_->ImportCertificateToStore(pki().issuing.certPem(), "CA", "", {}, "", {}));

    std::vector<std::uint8_t> p12;
    std::vector<std::string> chain;
    std::string root;
    ASSERT_TRUE(store_->ExportCertificateAndKeyFromStore("My", "Exp", "", p12, chain, root));
    const unsigned char* p = p12.data();
    const Pkcs12Ptr parsed(d2i_PKCS12(nullptr, &p, static_cast<long>(p12.size())));
    ASSERT_TRUE(parsed);
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    ASSERT_EQ(PKCS12_parse(parsed.get(), "", &key, &cert, nullptr), 1);
    const PkeyPtr ownedKey(key);
    const X509Ptr ownedCert(cert);
    EXPECT_EQ(X509_cmp(cert, a.issued.cert.get()), 0);
    EXPECT_EQ(EVP_PKEY_eq(key, a.issued.key.get()), 1);
    EXPECT_EQ(chain, (std::vector<std::string>{pki().issuing.certPem(), pki().root.certPem()}));
    EXPECT_EQ(root, pki().root.certPem());

    ASSERT_TRUE(store_->SetKeyExportPolicy("ke", false));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "Exp", "", p12, chain, root));
    EXPECT_TRUE(p12.empty());
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ExportCertificateAndKeyFromStore(): The private key of the certificate "
        "with friendly name=Exp cannot be exported."));
    // A certificate without a key is no export either.
    ASSERT_TRUE(store_->ImportCertificateToStore(a.issued.certPem, "My", "NoKey", {}, "", {}));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "NoKey", "", p12, chain, root));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "Missing", "", p12, chain, root));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ExportCertificateAndKeyFromStore(): Unable to find the certificate "
        "with friendly name=Missing."));
}

TEST_F(CertStoreTest, StoreFileIsPrivateAndItsDirectoryClosed) {
    std::vector<std::uint8_t> blob, pkcs1;
    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("mode-key", blob, pkcs1));
    const auto file = platform::paths::certStoreFile();
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
    for (const char* suffix : {"-wal", "-shm"}) {
        const auto side = file.string() + suffix;
        if (std::filesystem::exists(side)) {
            EXPECT_EQ(modeOf(side), 0600u) << side;
        }
    }
    // A store in a directory that does not exist yet creates it closed.
    OpenSslCertStore::Options options;
    options.databaseFile = (reg_.root() / "fresh" / "dir" / "certs.sqlite").string();
    OpenSslCertStore fresh(options);
    ASSERT_TRUE(fresh.OpenCertificateStore("My"));
    EXPECT_EQ(modeOf(reg_.root() / "fresh"), 0700u);
    EXPECT_EQ(modeOf(reg_.root() / "fresh" / "dir"), 0700u);
    EXPECT_EQ(modeOf(options.databaseFile), 0600u);
}

class ChainTest : public CertTest {
protected:
    static void SetUpTestSuite() {
        auto& p = TestPki::get();
        server_ =
            new devca::Issued(p.issuing.issueServer("broker", {"broker.test"}, {"127.0.0.1"}));
        foreignRoot_ = new devca::CertificateAuthority(
            devca::CertificateAuthority::createRoot("Foreign Root"));
    }
    static void TearDownTestSuite() {
        delete server_;
        delete foreignRoot_;
    }

    CertChainPtr chainFor(const std::string& certPem, const std::vector<std::string>& issuers) {
        const auto memory = store_->OpenMemoryStore();
        for (const auto& pem : issuers) {
            EXPECT_TRUE(store_->ImportCertificate(pem, memory, "", {}, ""));
        }
        CertContext leaf(x509FromPem(certPem));
        return store_->BuildCertificateChain(&leaf, memory);
    }

    std::uint32_t policyOf(const CertChain* chain, const std::string& name, bool unknownCa = false,
                           bool ignoreName = false) {
        std::uint32_t status = 0xffffffff;
        EXPECT_TRUE(store_->VerifyCertChain(chain, name, unknownCa, ignoreName, status));
        return status;
    }

    static devca::Issued* server_;
    static devca::CertificateAuthority* foreignRoot_;
};
devca::Issued* ChainTest::server_ = nullptr;
devca::CertificateAuthority* ChainTest::foreignRoot_ = nullptr;

TEST_F(ChainTest, TrustedChainPassesThePolicyForItsNamesOnly) {
    auto chain = chainFor(server_->certPem, {pki().issuing.certPem()});
    ASSERT_TRUE(chain);
    ASSERT_EQ(chain->simpleChains.size(), 1u);
    const auto& elements = chain->simpleChains[0].elements;
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_EQ(chain->errorStatus, 0u);
    EXPECT_EQ(cnOf(elements[2].context.cert.get()), "Test Root CA");
    EXPECT_EQ(elements[2].infoStatus & trust::kIsSelfSigned, trust::kIsSelfSigned);

    EXPECT_EQ(policyOf(chain.get(), "broker.test"), policy::kOk);
    EXPECT_EQ(policyOf(chain.get(), "127.0.0.1"), policy::kOk);
    EXPECT_EQ(policyOf(chain.get(), "other.test"), policy::kCnNoMatch);
    EXPECT_EQ(policyOf(chain.get(), "10.0.0.1"), policy::kCnNoMatch);
    EXPECT_EQ(policyOf(chain.get(), "other.test", false, true), policy::kOk);

    std::vector<std::string> pems;
    ASSERT_TRUE(store_->ConvertChainCtxToPEM(chain.get(), pems));
    EXPECT_EQ(pems, (std::vector<std::string>{server_->certPem, pki().issuing.certPem(),
                                              pki().root.certPem()}));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ConvertChainCtxToPEM(): Number of certificates in simple chain 0 is "
        "3."));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ConvertChainCtxToPEM(): Found subject=CN=broker; Found issuer=CN=Test "
        "Issuing CA"));
}

TEST_F(ChainTest, UnknownIssuersAreReportedAndMayBeAllowed) {
    // The issuing CA is missing: the chain stops at the server certificate.
    auto partial = chainFor(server_->certPem, {});
    ASSERT_TRUE(partial);
    EXPECT_EQ(partial->simpleChains[0].elements.size(), 1u);
    EXPECT_NE(partial->errorStatus & trust::kPartialChain, 0u);
    EXPECT_EQ(policyOf(partial.get(), "broker.test"), policy::kUntrustedRoot);
    EXPECT_EQ(policyOf(partial.get(), "broker.test", true), policy::kOk);
    EXPECT_EQ(policyOf(partial.get(), "other.test", true), policy::kCnNoMatch);

    // A root that is not trusted, until it is put in the "Root" store.
    auto server = foreignRoot_->issueServer("foreign", {"foreign.test"}, {});
    auto untrusted = chainFor(server.certPem, {foreignRoot_->certPem()});
    ASSERT_TRUE(untrusted);
    EXPECT_EQ(untrusted->simpleChains[0].elements.size(), 2u);
    EXPECT_NE(untrusted->errorStatus & trust::kUntrustedRoot, 0u);
    EXPECT_EQ(policyOf(untrusted.get(), "foreign.test"), policy::kUntrustedRoot);
    EXPECT_EQ(policyOf(untrusted.get(), "foreign.test", true), policy::kOk);

    ASSERT_TRUE(store_->ImportCertificateToStore(foreignRoot_->certPem(), "Root", "", {}, "", {}));
    auto trusted = chainFor(server.certPem, {foreignRoot_->certPem()});
    EXPECT_EQ(trusted->errorStatus, 0u);
    EXPECT_EQ(policyOf(trusted.get(), "foreign.test"), policy::kOk);
    // The machine's roots are the bundle's and the "Root" store's.
    EXPECT_EQ(store_->RetrieveSystemCertificates(),
              (std::vector<std::string>{pki().root.certPem(), foreignRoot_->certPem()}));
}

TEST_F(ChainTest, ExpiryAndWrongUsageFailThePolicy) {
    auto expired = pki().issuing.issueServer(
        "old", {"broker.test"}, {}, Validity{std::chrono::hours(-48), std::chrono::hours(1)});
    auto chain = chainFor(expired.certPem, {pki().issuing.certPem()});
    EXPECT_NE(chain->errorStatus & trust::kNotTimeValid, 0u);
    EXPECT_EQ(policyOf(chain.get(), "broker.test"), policy::kExpired);

    auto clientCert = pki().issuing.issueClient("broker.test");
    chain = chainFor(clientCert.certPem, {pki().issuing.certPem()});
    EXPECT_EQ(policyOf(chain.get(), "broker.test"), policy::kWrongUsage);

    std::uint32_t status = 0;
    EXPECT_FALSE(store_->VerifyCertChain(nullptr, "x", false, false, status));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::VerifyCertChain(): CertVerifyCertificateChainPolicy Error: no chain"));
    CertContext leaf(x509FromPem(server_->certPem));
    EXPECT_FALSE(store_->BuildCertificateChain(&leaf, nullptr));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::BuildCertificateChain(): Certificate store handle not provided."));
}

TEST_F(ChainTest, RevocationIsCheckedAgainstStoredAndGivenCrls) {
    devca::CertificateAuthority ca = pki().root.createIntermediate("Revoking CA");
    auto good = ca.issueServer("good", {"good.test"}, {});
    auto bad = ca.issueServer("bad", {"bad.test"}, {});
    ca.revoke(bad.serialHex);
    ASSERT_TRUE(store_->ImportCertificateToStore(ca.certPem(), "CA", "", {}, "", {}));
    const std::vector<std::string> crls = {ca.crlPem(), pki().root.crlPem()};

    const auto check = [&](const devca::Issued& issued, const std::vector<std::string>& given) {
        CertContext context(x509FromPem(issued.certPem));
        std::uint32_t error = 0xffffffff, info = 0;
        EXPECT_TRUE(store_->VerifyCertRevocation(&context, given, error, info));
        return error;
    };
    // Without CRLs the status cannot be known.
    EXPECT_NE(check(good, {}) & trust::kRevocationStatusUnknown, 0u);
    EXPECT_EQ(check(good, crls), 0u);
    EXPECT_EQ(check(bad, crls), trust::kRevoked);

    for (const auto& crl : crls) {
        ASSERT_TRUE(store_->AddCrl("CA", crl));
    }
    EXPECT_EQ(check(bad, {}), trust::kRevoked);
    EXPECT_EQ(check(good, {}), 0u);
    // A client certificate is not fit for a server.
    auto clientCert = ca.issueClient("client");
    EXPECT_EQ(check(clientCert, {}), trust::kNotValidForUsage);

    std::uint32_t error = 0, info = 0;
    CertContext context(x509FromPem(good.certPem));
    EXPECT_FALSE(store_->VerifyCertRevocation(&context, {"not a crl"}, error, info));
    EXPECT_FALSE(store_->AddCrl("CA", "not a crl"));
}

TEST_F(ChainTest, MemoryStoresHoldCertificatesForTheirOwnerOnly) {
    const auto memory = store_->OpenMemoryStore();
    ASSERT_TRUE(store_->ImportCertificate(server_->certPem, memory, "probe", {}, ""));
    ASSERT_TRUE(store_->ImportCertificate(server_->certPem, memory, "probe", {}, ""));
    auto found = store_->FindCertificate(memory, "probe", "BROKER");
    ASSERT_TRUE(found);
    EXPECT_EQ(store_->EnumerateCertificates(memory).size(), 1u);
    EXPECT_TRUE(store_->EnumerateCertificates(store_->OpenCertificateStore("My")).empty());
    EXPECT_TRUE(store_->DeleteCertificate(*found));
    EXPECT_TRUE(store_->EnumerateCertificates(memory).empty());
}

TEST_F(CertStoreTest, MissingRootBundleIsLoggedAndLeavesTheStoresRoots) {
    OpenSslCertStore::Options options;
    options.databaseFile = store_->databaseFile();
    options.systemRootsFile = (reg_.root() / "absent.crt").string();
    OpenSslCertStore noBundle(options);
    EXPECT_TRUE(noBundle.RetrieveSystemCertificates().empty());
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::RetrieveSystemCertificates(): Unable to open root certificate store"));

    // The machine's own bundle, when the host has one, reads as many roots.
    if (std::filesystem::exists(OpenSslCertStore::kDefaultSystemRootsFile)) {
        options.systemRootsFile = OpenSslCertStore::kDefaultSystemRootsFile;
        OpenSslCertStore machine(options);
        const auto roots = machine.RetrieveSystemCertificates();
        EXPECT_GT(roots.size(), 10u);
        EXPECT_EQ(roots.front().rfind("-----BEGIN CERTIFICATE-----\n", 0), 0u);
        EXPECT_EQ(roots.front().find('\r'), std::string::npos);
    }
}

}  // namespace
}  // namespace ndpx::certs::test
