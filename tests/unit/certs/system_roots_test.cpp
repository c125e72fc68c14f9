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
    ASSERT_TRUE(first->readable);
    EXPECT_EQ(first->pems, std::vector<std::string>{pki().root.certPem()});

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
    EXPECT_EQ(OpenSslCertStore(options).RetrieveSystemCertificates(), first->pems);
    EXPECT_EQ(systemRootSet(file), first);

    // A changed bundle is parsed again; the earlier parse stays as it was
    // for whoever still holds it.
    std::ofstream(rootsFile_, std::ios::trunc) << pki().root.certPem() << pki().issuing.certPem();
    const auto second = systemRootSet(file);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->certs.size(), 2u);
    EXPECT_EQ(first->certs.size(), 1u);

    const auto absent = systemRootSet((reg_.root() / "absent.crt").string());
    EXPECT_FALSE(absent->readable);
    EXPECT_TRUE(absent->certs.empty());
}

TEST_F(CertTest, ThreadsAskingForTheRootsFirstShareOneParse) {
    const auto file = reg_.root() / "fresh.crt";
    std::ofstream(file) << pki().root.certPem() << pki().issuing.certPem();
    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::vector<std::shared_ptr<const SystemRootSet>> got(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            got[i] = systemRootSet(file.string());
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    ASSERT_EQ(got[0]->certs.size(), 2u);
    for (const auto& set : got) {
        EXPECT_EQ(set, got[0]);
    }
}

}  // namespace ndpx::certs::test
