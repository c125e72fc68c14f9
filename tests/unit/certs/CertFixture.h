#pragma once
// Shared set-up of the certificate tests: a private root with its own
// certificate store file and log capture, a development CA (made once per
// test program: RSA key generation is slow) and small helpers.

#include "certs/linux/OpenSslCertStore.h"
#include "devca/DevCa.h"
#include "support/TestRegistry.h"

#include <platform/Paths.h>

#include <gtest/gtest.h>
#include <openssl/encoder.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::certs::test {

// One CA hierarchy for the whole test program.
struct TestPki {
    devca::CertificateAuthority root = devca::CertificateAuthority::createRoot("Test Root CA");
    devca::CertificateAuthority issuing = root.createIntermediate("Test Issuing CA");

    static TestPki& get() {
        static TestPki* pki = new TestPki;  // lives to the end of the program
        return *pki;
    }
};

// The MS private-key blob of `key`, made with OpenSSL's encoder directly.
inline std::vector<std::uint8_t> msBlobOf(EVP_PKEY* key) {
    OSSL_ENCODER_CTX* ctx =
        OSSL_ENCODER_CTX_new_for_pkey(key, OSSL_KEYMGMT_SELECT_KEYPAIR, "MSBLOB", nullptr, nullptr);
    unsigned char* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> out;
    if (ctx != nullptr && OSSL_ENCODER_to_data(ctx, &data, &size) == 1) {
        out.assign(data, data + size);
        OPENSSL_free(data);
    }
    OSSL_ENCODER_CTX_free(ctx);
    return out;
}

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline unsigned modeOf(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0xffffffffu;
}

inline std::string cnOf(X509* cert) {
    char buf[256] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, buf, sizeof buf);
    return buf;
}

class CertTest : public ::testing::Test {
protected:
    CertTest() {
        // The machine's roots are replaced by the test root, so that trust
        // decisions do not depend on the host's CA bundle.
        rootsFile_ = reg_.root() / "ca-certificates.crt";
        std::ofstream(rootsFile_) << pki().root.certPem();
        OpenSslCertStore::Options options;
        options.databaseFile = platform::paths::certStoreFile().string();
        options.systemRootsFile = rootsFile_.string();
        store_ = std::make_shared<OpenSslCertStore>(options);
    }

    static TestPki& pki() { return TestPki::get(); }

    // A client certificate of the issuing CA with its key as MS blob.
    struct Client {
        devca::Issued issued;
        std::vector<std::uint8_t> blob;
    };
    Client client(const std::string& cn, devca::Validity v = {}) {
        Client c{pki().issuing.issueClient(cn, v), {}};
        c.blob = msBlobOf(c.issued.key.get());
        return c;
    }

    ndpx::test::TestRegistry reg_;
    std::filesystem::path rootsFile_;
    std::shared_ptr<OpenSslCertStore> store_;
};

}  // namespace ndpx::certs::test
