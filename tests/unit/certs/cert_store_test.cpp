// The Linux certificate and key store over a real SQLite file and real
// OpenSSL objects: keys and their blob forms, requests checked by the openssl
// tool, import and find rules, deletion, PKCS#12 export, file modes, chains,
// the SSL policy and revocation.

#include "certs/OpenSslUtil.h"
#include "support/Process.h"
#include "unit/certs/CertFixture.h"

#include <openssl/x509v3.h>

namespace ndpx::certs::test {
namespace {

using devca::Validity;

ReqPtr parseReq(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    return ReqPtr(d2i_X509_REQ(nullptr, &p, static_cast<long>(der.size())));
}

// The subject of a DER request, one "SN=value (ASN.1 string type)" an entry.
std::vector<std::string> subjectOf(const std::vector<std::uint8_t>& der) {
    const ReqPtr req = parseReq(der);
    std::vector<std::string> out;
    const X509_NAME* name = req ? X509_REQ_get_subject_name(req.get()) : nullptr;
    for (int i = 0; name != nullptr && i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(e);
        out.push_back(std::string(OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(e)))) + "=" +
                      reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)) + " (" +
                      ASN1_tag2str(ASN1_STRING_type(data)) + ")");
    }
    return out;
}

// A PKCS#1 DER private key, decoded by a call the store does not use.
PkeyPtr pkcs1Key(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    return PkeyPtr(d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &p, static_cast<long>(der.size())));
}

class CertStoreTest : public CertTest {
protected:
    CertStorePtr my() { return store_->OpenCertificateStore("My"); }
    std::size_t countMy() { return store_->EnumerateCertificates(my()).size(); }
    // Imports `c` with its key into "My".
    bool import(const Client& c, const std::string& friendlyName, const std::string& container) {
        return store_->ImportCertificateToStore(c.issued.certPem, "My", friendlyName, c.blob,
                                                container, nullptr);
    }
    // Imports a certificate without a key.
    bool importPem(const std::string& pem, const std::string& storeName,
                   const std::string& friendlyName = "") {
        return store_->ImportCertificateToStore(pem, storeName, friendlyName, {}, "", nullptr);
    }
    static bool is(const std::optional<CertContext>& found, const Client& c) {
        return found && X509_cmp(x509Of(*found), c.issued.cert.get()) == 0;
    }
};

TEST_F(CertStoreTest, KeysComeAsMsBlobAndPkcs1AndSignRequestsTheOpensslToolAccepts) {
    std::vector<std::uint8_t> blob, pkcs1, blob2, pkcs2, csr;
    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("{C-1}", blob, pkcs1));
    // PRIVATEKEYBLOB, version 2, key exchange RSA, "RSA2", 2048 bits.
    ASSERT_GT(blob.size(), 20u);
    EXPECT_EQ(std::vector<std::uint8_t>(blob.begin(), blob.begin() + 16),
              (std::vector<std::uint8_t>{0x07, 0x02, 0x00, 0x00, 0x00, 0xa4, 0x00, 0x00, 'R', 'S',
                                         'A', '2', 0x00, 0x08, 0x00, 0x00}));
    // The two forms hold the same key; decoded here by other OpenSSL calls.
    const unsigned char* b = blob.data();
    const PkeyPtr fromBlob(b2i_PrivateKey(&b, static_cast<long>(blob.size())));
    const PkeyPtr fromDer = pkcs1Key(pkcs1);
    ASSERT_TRUE(fromBlob && fromDer);
    EXPECT_EQ(EVP_PKEY_eq(fromBlob.get(), fromDer.get()), 1);
    EXPECT_EQ(EVP_PKEY_get_bits(fromDer.get()), 2048);
    EXPECT_TRUE(store_->KeyExists("{c-1}"));  // container names ignore case

    // A second key replaces the first: requests are signed by it.
    ASSERT_TRUE(store_->GenerateKeyUsingWin32API("{C-1}", blob2, pkcs2));
    ASSERT_TRUE(store_->GenerateCSRUsingWin32API("{C-1}", "agent-01", "Desktops", "Example Org",
                                                 "Some State", "US", csr));
    const ReqPtr req = parseReq(csr);
    ASSERT_TRUE(req);
    EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(req.get()), fromDer.get()), 0);
    EXPECT_EQ(EVP_PKEY_eq(X509_REQ_get0_pubkey(req.get()), pkcs1Key(pkcs2).get()), 1);
    EXPECT_EQ(X509_REQ_get_signature_nid(req.get()), NID_sha256WithRSAEncryption);
    const auto file = reg_.root() / "req.der";
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(csr.data()), static_cast<std::streamsize>(csr.size()));
    const auto result = ndpx::test::run(
        {"/usr/bin/openssl", "req", "-inform", "DER", "-in", file.string(), "-verify", "-noout"});
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("verify OK"), std::string::npos) << result.output;
    EXPECT_EQ(subjectOf(csr), (std::vector<std::string>{
                                  "CN=agent-01 (PRINTABLESTRING)", "OU=Desktops (PRINTABLESTRING)",
                                  "O=Example Org (PRINTABLESTRING)",
                                  "ST=Some State (PRINTABLESTRING)", "C=US (PRINTABLESTRING)"}));
    // Empty attributes are left out; an identity with '_' is no PrintableString.
    ASSERT_TRUE(store_->GenerateCSRUsingWin32API("{C-1}", "E1ST_VM9", "", "Org", "", "", csr));
    EXPECT_EQ(subjectOf(csr),
              (std::vector<std::string>{"CN=E1ST_VM9 (UTF8STRING)", "O=Org (PRINTABLESTRING)"}));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::GenerateKeyUsingWin32API(): NCryptExportKey succeeded, size "
        "required=" +
        std::to_string(blob2.size()) + "."));

    EXPECT_FALSE(store_->GenerateKeyUsingWin32API("", blob, pkcs1));
    EXPECT_TRUE(blob.empty());
    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("{C-1}", "", "", "", "", "", csr));
    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("", "cn", "", "", "", "", csr));
    EXPECT_FALSE(store_->GenerateCSRUsingWin32API("no-such-key", "cn", "", "", "", "", csr));
    EXPECT_TRUE(csr.empty());
}

TEST_F(CertStoreTest, FindMatchesFriendlyNameExactlyAndCommonNameWithoutCaseOrTrailingBlanks) {
    const auto a = client("Agent-A");
    const auto b = client("Agent-B \t");
    ASSERT_TRUE(import(a, "Shared", "key-a") && import(b, "Shared", "key-b"));

    const auto found = store_->FindCertificate(my(), "Shared", "agent-b");
    ASSERT_TRUE(is(found, b));
    EXPECT_EQ(found->keyContainer, "key-b");
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::FindCertificate(): Ignoring cert with CN mismatch: Agent-A"));
    EXPECT_TRUE(is(store_->FindCertificate(my(), "Shared", "AGENT-A  "), a));
    // Without a common name the first of the name is the answer.
    EXPECT_TRUE(is(store_->FindCertificate(my(), "Shared", ""), a));

    EXPECT_FALSE(store_->FindCertificate(my(), "shared", ""));  // friendly names keep their case
    EXPECT_FALSE(store_->FindCertificate(my(), "Shared", "Agent-C"));
    EXPECT_FALSE(store_->FindCertificate(my(), "", ""));
    EXPECT_FALSE(store_->FindCertificate(nullptr, "Shared", ""));
    EXPECT_FALSE(store_->FindCertificate(store_->OpenCertificateStore("Root"), "Shared", ""));
}

TEST_F(CertStoreTest, ImportReplacesTheSameCertificateAndRefusesAForeignKey) {
    const auto a = client("agent");
    const auto other = client("other");
    ASSERT_TRUE(import(a, "Client", "key-a") && import(a, "Client", "key-a"));
    EXPECT_EQ(countMy(), 1u);

    // A key that does not belong to the certificate is not bound, and the
    // certificate is not added.
    EXPECT_FALSE(store_->ImportCertificateToStore(other.issued.certPem, "My", "Other", a.blob,
                                                  "key-x", nullptr));
    EXPECT_FALSE(store_->KeyExists("key-x"));
    EXPECT_EQ(countMy(), 1u);
    EXPECT_TRUE(importPem(pki().issuing.certPem(), "My"));  // a CA certificate needs no key
    EXPECT_FALSE(importPem("garbage", "My", "X"));
    EXPECT_FALSE(importPem(a.issued.certPem, "", "X"));
    EXPECT_FALSE(  // a container without a key
        store_->ImportCertificateToStore(a.issued.certPem, "My", "X", {}, "key-a", nullptr));
    EXPECT_EQ(countMy(), 2u);

    // Binding a key to a certificate already in the store.
    ASSERT_TRUE(store_->FindCertificate(my(), "Test Issuing CA", ""));  // by CN: no friendly name
    auto stored = store_->FindCertificate(my(), "Client", "");
    ASSERT_TRUE(stored);
    ASSERT_TRUE(store_->SetPrivateKeyForCertificateInStore(*stored, a.blob, "key-a2"));
    EXPECT_EQ(store_->FindCertificate(my(), "Client", "")->keyContainer, "key-a2");

    // A memory store holds its certificates for its owner only.
    const auto memory = store_->OpenMemoryStore();
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(store_->ImportCertificate(other.issued.certPem, memory, "probe", {}, ""));
    }
    const auto probe = store_->FindCertificate(memory, "probe", "OTHER");
    ASSERT_TRUE(is(probe, other));
    EXPECT_EQ(store_->EnumerateCertificates(memory).size(), 1u);
    EXPECT_EQ(countMy(), 2u);
    EXPECT_TRUE(store_->DeleteCertificate(*probe));
    EXPECT_TRUE(store_->EnumerateCertificates(memory).empty());
}

TEST_F(CertStoreTest, DeletingRemovesCertificatesAndKeysNoLongerBound) {
    const auto a = client("a");
    const auto b = client("b");
    const auto c = client("c");
    ASSERT_TRUE(import(a, "Gone", "ka") && import(b, "Gone", "kb") && import(c, "Kept", "kc"));

    EXPECT_TRUE(store_->DeleteCertificates("My", "Gone"));
    EXPECT_EQ(reg_.log().count(
                  "OpenSslCertStore::DeleteCertificates(): Deleted certificate with friendly name "
                  "Gone"),
              2u);
    EXPECT_EQ(countMy(), 1u);
    EXPECT_FALSE(store_->KeyExists("ka") || store_->KeyExists("kb"));
    EXPECT_TRUE(store_->KeyExists("kc"));
    EXPECT_TRUE(store_->DeleteCertificates("My", "Gone"));  // nothing left to delete

    auto kept = store_->FindCertificate(my(), "Kept", "");
    ASSERT_TRUE(is(kept, c));
    EXPECT_TRUE(store_->DeleteCertificate(*kept));
    EXPECT_FALSE(store_->KeyExists("kc"));
    EXPECT_FALSE(store_->DeleteCertificate(*kept));
    EXPECT_FALSE(store_->DeleteCertificate(CertContext(shareCertificate(c.issued.cert.get()))));
}

// What the export holds is checked through CertificateUtil's own tests;
// here, when the store refuses it.
TEST_F(CertStoreTest, Pkcs12ExportRefusesAKeyThatMayNotLeaveAndACertificateWithoutOne) {
    const auto a = client("exported");
    ASSERT_TRUE(import(a, "Exp", "ke") && importPem(pki().issuing.certPem(), "CA"));
    std::vector<std::uint8_t> p12;
    std::vector<std::string> chain;
    std::string root;
    ASSERT_TRUE(store_->ExportCertificateAndKeyFromStore("My", "Exp", "", p12, chain, root));
    EXPECT_FALSE(p12.empty());
    EXPECT_EQ(chain, (std::vector<std::string>{pki().issuing.certPem(), pki().root.certPem()}));

    ASSERT_TRUE(store_->SetKeyExportPolicy("ke", false));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "Exp", "", p12, chain, root));
    EXPECT_TRUE(p12.empty());
    ASSERT_TRUE(importPem(a.issued.certPem, "My", "NoKey"));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "NoKey", "", p12, chain, root));
    EXPECT_FALSE(store_->ExportCertificateAndKeyFromStore("My", "Missing", "", p12, chain, root));
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
    // Made once for the program: RSA key generation is slow.
    static const devca::Issued& server() {
        static const auto* issued =
            new devca::Issued(pki().issuing.issueServer("broker", {"broker.test"}, {"127.0.0.1"}));
        return *issued;
    }

    CertChainPtr chainFor(const std::string& certPem, const std::vector<std::string>& issuers) {
        const auto memory = store_->OpenMemoryStore();
        for (const auto& pem : issuers) {
            EXPECT_TRUE(store_->ImportCertificate(pem, memory, "", {}, ""));
        }
        CertContext leaf(certificateOf(x509FromPem(certPem)));
        return store_->BuildCertificateChain(&leaf, memory);
    }
    CertChainPtr issuedChain(const devca::Issued& leaf) {
        return chainFor(leaf.certPem, {pki().issuing.certPem()});
    }

    std::uint32_t policyOf(const CertChain* chain, const std::string& name, bool unknownCa = false,
                           bool ignoreName = false) {
        std::uint32_t status = 0xffffffff;
        EXPECT_TRUE(store_->VerifyCertChain(chain, name, unknownCa, ignoreName, status));
        return status;
    }
};

TEST_F(ChainTest, ChainsReachTheRootAndThePolicyChecksNameTrustTimeAndUsage) {
    const auto trusted = issuedChain(server());
    // The issuing CA is missing: the chain stops at the server certificate.
    const auto partial = chainFor(server().certPem, {});
    const auto expired = issuedChain(pki().issuing.issueServer(
        "old", {"broker.test"}, {}, Validity{std::chrono::hours(-48), std::chrono::hours(1)}));
    const auto client = issuedChain(pki().issuing.issueClient("broker.test"));
    ASSERT_TRUE(trusted && partial && expired && client);
    ASSERT_EQ(trusted->simpleChains.size(), 1u);
    const auto& elements = trusted->simpleChains[0].elements;
    ASSERT_EQ(elements.size(), 3u);
    EXPECT_EQ(trusted->errorStatus, 0u);
    EXPECT_EQ(cnOf(x509Of(elements[2].context)), "Test Root CA");
    EXPECT_EQ(elements[2].infoStatus & trust::kIsSelfSigned, trust::kIsSelfSigned);
    EXPECT_EQ(partial->simpleChains[0].elements.size(), 1u);
    EXPECT_NE(partial->errorStatus & trust::kPartialChain, 0u);
    EXPECT_NE(expired->errorStatus & trust::kNotTimeValid, 0u);

    struct Case {
        const CertChain* chain;
        const char* name;
        bool unknownCa;
        bool ignoreName;
        std::uint32_t expected;
    };
    const Case cases[] = {
        {trusted.get(), "broker.test", false, false, policy::kOk},
        {trusted.get(), "127.0.0.1", false, false, policy::kOk},
        {trusted.get(), "other.test", false, false, policy::kCnNoMatch},
        {trusted.get(), "10.0.0.1", false, false, policy::kCnNoMatch},
        {trusted.get(), "other.test", false, true, policy::kOk},
        {partial.get(), "broker.test", false, false, policy::kUntrustedRoot},
        {partial.get(), "broker.test", true, false, policy::kOk},
        {partial.get(), "other.test", true, false, policy::kCnNoMatch},
        {expired.get(), "broker.test", false, false, policy::kExpired},
        {client.get(), "broker.test", false, false, policy::kWrongUsage},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(policyOf(c.chain, c.name, c.unknownCa, c.ignoreName), c.expected)
            << "case " << &c - cases;
    }
    std::uint32_t status = 0;
    EXPECT_FALSE(store_->VerifyCertChain(nullptr, "x", false, false, status));
    CertContext leaf(certificateOf(x509FromPem(server().certPem)));
    EXPECT_FALSE(store_->BuildCertificateChain(&leaf, nullptr));

    std::vector<std::string> pems;
    ASSERT_TRUE(store_->ConvertChainCtxToPEM(trusted.get(), pems));
    EXPECT_EQ(pems, (std::vector<std::string>{server().certPem, pki().issuing.certPem(),
                                              pki().root.certPem()}));
    EXPECT_TRUE(reg_.log().contains(
        "OpenSslCertStore::ConvertChainCtxToPEM(): Found subject=CN=broker; Found issuer=CN=Test "
        "Issuing CA"));
}

// The machine's roots are the bundle's and the "Root" store's.
TEST_F(ChainTest, RootsComeFromTheBundleAndTheRootStore) {
    auto foreignRoot = devca::CertificateAuthority::createRoot("Foreign Root");
    const auto server = foreignRoot.issueServer("foreign", {"foreign.test"}, {});
    auto untrusted = chainFor(server.certPem, {foreignRoot.certPem()});
    ASSERT_TRUE(untrusted);
    EXPECT_EQ(untrusted->simpleChains[0].elements.size(), 2u);
    EXPECT_NE(untrusted->errorStatus & trust::kUntrustedRoot, 0u);
    EXPECT_EQ(policyOf(untrusted.get(), "foreign.test"), policy::kUntrustedRoot);
    EXPECT_EQ(policyOf(untrusted.get(), "foreign.test", true), policy::kOk);

    ASSERT_TRUE(store_->ImportCertificateToStore(foreignRoot.certPem(), "Root", "", {}, "", {}));
    auto trusted = chainFor(server.certPem, {foreignRoot.certPem()});
    EXPECT_EQ(trusted->errorStatus, 0u);
    EXPECT_EQ(policyOf(trusted.get(), "foreign.test"), policy::kOk);
    EXPECT_EQ(store_->RetrieveSystemCertificates(),
              (std::vector<std::string>{pki().root.certPem(), foreignRoot.certPem()}));

    // Without a bundle only the store's roots are left.
    OpenSslCertStore::Options options;
    options.databaseFile = store_->databaseFile();
    options.systemRootsFile = (reg_.root() / "absent.crt").string();
    EXPECT_EQ(OpenSslCertStore(options).RetrieveSystemCertificates(),
              std::vector<std::string>{foreignRoot.certPem()});

    // The machine's own bundle, when the host has one, reads as many roots.
    if (std::filesystem::exists(OpenSslCertStore::kDefaultSystemRootsFile)) {
        options.systemRootsFile = OpenSslCertStore::kDefaultSystemRootsFile;
        const auto roots = OpenSslCertStore(options).RetrieveSystemCertificates();
        EXPECT_GT(roots.size(), 10u);
        EXPECT_EQ(roots.front().rfind("-----BEGIN CERTIFICATE-----\n", 0), 0u);
        EXPECT_EQ(roots.front().find('\r'), std::string::npos);
    }
}

TEST_F(ChainTest, RevocationIsCheckedAgainstStoredAndGivenCrls) {
    devca::CertificateAuthority ca = pki().root.createIntermediate("Revoking CA");
    auto good = ca.issueServer("good", {"good.test"}, {});
    auto bad = ca.issueServer("bad", {"bad.test"}, {});
    ca.revoke(bad.serialHex);
    ASSERT_TRUE(store_->ImportCertificateToStore(ca.certPem(), "CA", "", {}, "", {}));
    const std::vector<std::string> crls = {ca.crlPem(), pki().root.crlPem()};

    const auto check = [&](const devca::Issued& issued, const std::vector<std::string>& given) {
        CertContext context(certificateOf(x509FromPem(issued.certPem)));
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
    EXPECT_EQ(check(ca.issueClient("client"), {}), trust::kNotValidForUsage);

    std::uint32_t error = 0, info = 0;
    CertContext context(certificateOf(x509FromPem(good.certPem)));
    EXPECT_FALSE(store_->VerifyCertRevocation(&context, {"not a crl"}, error, info));
    EXPECT_FALSE(store_->AddCrl("CA", "not a crl"));
}

}  // namespace
}  // namespace ndpx::certs::test
