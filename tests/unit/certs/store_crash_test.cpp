// A process killed in the middle of a certificate swap or replacement leaves
// the store exactly as it was before: a child process is stopped inside the
// transaction (through the store's transaction hook) and SIGKILLed.

#include "certs/CertificateUtil.h"
#include "certs/OpenSslUtil.h"
#include "unit/certs/CertFixture.h"

#include <platform/UniqueFd.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <ostream>

namespace ndpx::certs::test {
namespace {

// What a store holds: friendly name -> thumbprints, and which keys exist.
struct Snapshot {
    std::multimap<std::string, std::string> certificates;
    std::map<std::string, bool> keys;
    bool operator==(const Snapshot&) const = default;

    friend void PrintTo(const Snapshot& s, std::ostream* os) {
        for (const auto& [name, thumbprint] : s.certificates) {
            *os << "\n  '" << name << "' " << thumbprint.substr(0, 11);
        }
        for (const auto& [container, present] : s.keys) {
            *os << "\n  key " << container << (present ? " present" : " absent");
        }
    }
};

// The child's side of the hook: tell the parent where it stands, then wait
// to be killed.
int g_reportFd = -1;
const char* g_stopAt = nullptr;

void stopInsideTransaction(const char* point) {
    if (std::string_view(point) != g_stopAt) {
        return;
    }
    const char mark = 'x';
    (void)!::write(g_reportFd, &mark, 1);
    for (;;) {
        ::pause();
    }
}

class StoreCrashTest : public CertTest {
protected:
    void SetUp() override {
        current_ = storeClient("agent", "{CUR}", false);
        pending_ = storeClient("agent", "{PEND}", true);
    }

    std::string storeClient(const std::string& cn, const std::string& container, bool pending) {
        const auto c = client(cn);
        EXPECT_TRUE(util_.StoreCertificates(pending, c.issued.certPem, pki().issuing.certPem(),
                                            c.blob, container));
        return thumbprintOf(c.issued.cert.get());
    }

    Snapshot snapshot() {
        // A fresh store object: nothing of the child's survives but the file.
        OpenSslCertStore::Options options;
        options.databaseFile = store_->databaseFile();
        options.systemRootsFile = rootsFile_.string();
        OpenSslCertStore fresh(options);
        Snapshot s;
        for (const auto& c : fresh.EnumerateCertificates(fresh.OpenCertificateStore("My"))) {
            s.certificates.emplace(c.friendlyName, thumbprintOf(x509Of(c)));
        }
        for (const char* container : {"{CUR}", "{PEND}", "{NEW}"}) {
            s.keys[container] = fresh.KeyExists(container);
        }
        return s;
    }

    // Runs `operation` in a child that stops at `point` inside its
    // transaction, and kills it there. False if the child never got there.
    template <typename Operation>
    bool killInside(const char* point, Operation operation) {
        int fds[2];
        if (::pipe(fds) != 0) {
            return false;
        }
        platform::UniqueFd readEnd(fds[0]);
        platform::UniqueFd writeEnd(fds[1]);
        const pid_t pid = ::fork();
        if (pid == 0) {
            readEnd.reset();
            g_reportFd = writeEnd.get();
            g_stopAt = point;
            OpenSslCertStore::setTransactionHookForTesting(stopInsideTransaction);
            // Its own store object: no SQLite connection crosses the fork.
            OpenSslCertStore::Options options;
            options.databaseFile = store_->databaseFile();
            options.systemRootsFile = rootsFile_.string();
            CertificateUtil util(std::make_shared<OpenSslCertStore>(options));
            operation(util);
            ::_exit(3);  // the operation finished without reaching the point
        }
        writeEnd.reset();
        char mark = 0;
        const bool reached = ::read(readEnd.get(), &mark, 1) == 1;
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        return reached && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

    CertificateUtil util_{store_};
    std::string current_;
    std::string pending_;
};

TEST_F(StoreCrashTest, ActivationKilledInsideItsTransactionLeavesTheStoreAsBefore) {
    const Snapshot before = snapshot();
    ASSERT_EQ(before.certificates.count(kClientCertFriendlyName), 1u);
    ASSERT_EQ(before.certificates.count(kPendingClientCertFriendlyName), 1u);

    for (const char* point : {"PromoteCertificate:renamed", "PromoteCertificate:removed"}) {
        ASSERT_TRUE(killInside(point, [](CertificateUtil& u) { u.ActivatePendingCertificate(); }))
            << point;
        EXPECT_EQ(snapshot(), before) << point;
    }

    // The same activation, uninterrupted, gives the state after.
    ASSERT_TRUE(util_.ActivatePendingCertificate());
    const Snapshot after = snapshot();
    EXPECT_EQ(after.certificates.count(kPendingClientCertFriendlyName), 0u);
    ASSERT_EQ(after.certificates.count(kClientCertFriendlyName), 1u);
    EXPECT_EQ(after.certificates.find(kClientCertFriendlyName)->second, pending_);
    EXPECT_FALSE(after.keys.at("{CUR}"));
    EXPECT_TRUE(after.keys.at("{PEND}"));
}

TEST_F(StoreCrashTest, ReplacementKilledAfterRemovingTheOldCertificateKeepsIt) {
    const Snapshot before = snapshot();
    const auto replacement = client("agent");
    ASSERT_TRUE(killInside("ReplaceCertificates:removed", [&](CertificateUtil& u) {
        u.StoreCertificates(false, replacement.issued.certPem, pki().issuing.certPem(),
                            replacement.blob, "{NEW}");
    }));
    const Snapshot afterKill = snapshot();
    EXPECT_EQ(afterKill, before);
    EXPECT_EQ(afterKill.certificates.find(kClientCertFriendlyName)->second, current_);
}

}  // namespace
}  // namespace ndpx::certs::test
