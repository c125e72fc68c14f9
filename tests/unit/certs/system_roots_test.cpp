// The system CA bundle is parsed once per process: stores share the parse,
// a changed bundle is read again, and threads asking first at the same
// moment get one parse between them.

#include "CertFixture.h"
#include "certs/linux/SystemRoots.h"

#include <fcntl.h>

#include <latch>
#include <thread>

namespace ndpx::certs::test {
namespace {

// Puts the modification time of `to` back on `path`.
void keepTime(const std::filesystem::path& path, const struct stat& to) {
    const timespec times[2] = {to.st_atim, to.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

}  // namespace

TEST_F(CertTest, SystemRootsAreParsedOnceAndAgainWhenTheBundleChanges) {
    const std::string file = rootsFile_.string();
    const auto first = systemRootSet(file);
    ASSERT_TRUE(first->readable());
    EXPECT_EQ(first->pems(), std::vector<std::string>{pki().root.certPem()});

    // Same size and time: a new store answers from the first parse, without
    // reading the file's (here swapped) bytes.
    struct stat before {};
    ASSERT_EQ(::stat(rootsFile_.c_str(), &before), 0);
    std::string swapped = pki().root.certPem();
    swapped[swapped.find("-----END")] = ' ';
    std::ofstream(rootsFile_, std::ios::trunc) << swapped;
    keepTime(rootsFile_, before);
    OpenSslCertStore::Options options;
    options.databaseFile = store_->databaseFile();
    options.systemRootsFile = file;
    EXPECT_EQ(OpenSslCertStore(options).RetrieveSystemCertificates(), first->pems());
    EXPECT_EQ(systemRootSet(file), first);

    // A changed bundle is parsed again; the earlier parse stays as it was
    // for whoever still holds it.
    std::ofstream(rootsFile_, std::ios::trunc) << pki().root.certPem() << pki().issuing.certPem();
    const auto second = systemRootSet(file);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->size(), 2u);
    EXPECT_EQ(first->size(), 1u);

    const auto absent = systemRootSet((reg_.root() / "absent.crt").string());
    EXPECT_FALSE(absent->readable());
    EXPECT_EQ(absent->size(), 0u);

    // Reading only the certificates' headers finds what a full decode finds,
    // in the machine's own bundle when the host has one.
    const std::string bundle = readFile(OpenSslCertStore::kDefaultSystemRootsFile);
    std::vector<std::string> decoded;
    for (const auto& cert : x509sFromPemBundle(bundle)) {
        decoded.push_back(x509ToPem(cert.get()));
    }
    EXPECT_EQ(SystemRootSet::fromPem(bundle)->pems(), decoded);
}

// Threads asking at once get one read of the file and one decode of the
// root they need.
TEST_F(CertTest, ThreadsAskingForTheRootsFirstShareOneReadAndOneDecode) {
    const auto file = reg_.root() / "fresh.crt";
    std::ofstream(file) << pki().root.certPem() << pki().issuing.certPem();
    const X509Ptr leaf = x509FromPem(client("shared").issued.certPem);
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::vector<std::shared_ptr<const SystemRootSet>> got(kThreads);
    std::vector<X509*> issuers(kThreads);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            got[i] = systemRootSet(file.string());
            STACK_OF(X509)* trusted = sk_X509_new_null();
            if (got[i]->addIssuers({leaf.get()}, trusted) && sk_X509_num(trusted) > 0) {
                issuers[i] = sk_X509_value(trusted, 0);
            }
            sk_X509_free(trusted);
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    ASSERT_EQ(got[0]->size(), 2u);
    ASSERT_NE(issuers[0], nullptr);
    EXPECT_EQ(cnOf(issuers[0]), "Test Issuing CA");
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(got[i], got[0]);
        EXPECT_EQ(issuers[i], issuers[0]);
    }
}

}  // namespace ndpx::certs::test
