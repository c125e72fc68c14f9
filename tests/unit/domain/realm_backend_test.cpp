// The realm backend against the stand-in `realm`: what reaches the tool and
// where the password goes, realm's answers turned into codes and texts, a
// hanging or missing tool, and the reading of `realm list`.

#include "domain/linux/RealmDomainBackend.h"

#include "domain/AbsDomainUtil.h"
#include "support/RealmStandin.h"

#include <mfw/log.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

constexpr const char* kPassword = "S3cret pw!";

class RealmBackendTest : public ::testing::Test {
protected:
    RealmBackendTest() {
        CORE::setLogLevel(0);
        CORE::addLogSink(log_);
    }
    ~RealmBackendTest() override { CORE::removeLogSink(log_); }
    std::uint32_t join(RealmDomainBackend& backend) {
        return backend.Join("corp.example", "OU=Desks,DC=corp", "corp.example\\alice", kPassword);
    }
    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    test::RealmStandin realm_;
    CORE::coreevent stop_;
    RealmDomainBackend backend_{&stop_, 10s, 10s};
};

TEST_F(RealmBackendTest, ThePasswordGoesOnStandardInputOnlyAndTheJoinShowsInTheList) {
    DomainMembership membership;
    EXPECT_EQ(backend_.QueryMembership(membership), 0u);
    EXPECT_FALSE(membership.joined);
    EXPECT_EQ(join(backend_), 0u);
    EXPECT_EQ(realm_.record("join.args"),
              "join\n--user=alice\n--computer-ou=OU=Desks,DC=corp\ncorp.example\n");
    EXPECT_EQ(realm_.record("join.stdin"), std::string(kPassword) + "\n");
    EXPECT_EQ(realm_.record("join.env").find("S3cret"), std::string::npos);
    EXPECT_EQ(backend_.QueryMembership(membership), 0u);
    EXPECT_TRUE(membership.joined);
    EXPECT_EQ(membership.domain, "corp.example");
    EXPECT_EQ(backend_.Join("-v", "", "", ""), domain_error::kBadArguments);
}

TEST_F(RealmBackendTest, RealmsRefusalIsKeptWithoutThePassword) {
    realm_.setJoinMode("fail");
    EXPECT_EQ(join(backend_), domain_error::kJoinFailed);
    EXPECT_EQ(backend_.ErrorText(domain_error::kJoinFailed),
              "realm: Couldn't join realm: Password '*****' was refused by corp.example");
    const auto lines = log_->lines();
    EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find(kPassword) != std::string::npos;
    }));
    realm_.setJoinMode("already");
    EXPECT_EQ(join(backend_), domain_error::kAlreadyJoined);
}

TEST_F(RealmBackendTest, AHangingRealmIsKilledAtItsTimeOutOrWhenTheAgentStops) {
    realm_.setJoinMode("hang");
    RealmDomainBackend impatient(&stop_, 300ms, 300ms);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(join(impatient), domain_error::kTimedOut);
    EXPECT_NE(impatient.ErrorText(domain_error::kTimedOut).find("did not finish"),
              std::string::npos);
    stop_.set();
    EXPECT_EQ(join(backend_), domain_error::kStopped);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST_F(RealmBackendTest, WithoutRealmOnPathJoinAndQueryFailWithTheirOwnCode) {
    const std::string path = ::getenv("PATH");
    ::setenv("PATH", "/nonexistent", 1);
    DomainMembership membership;
    EXPECT_EQ(join(backend_), domain_error::kToolMissing);
    EXPECT_EQ(backend_.QueryMembership(membership), domain_error::kToolMissing);
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_NE(backend_.ErrorText(domain_error::kToolMissing).find("not installed"),
              std::string::npos);
}

TEST(RealmList, TheFirstRealmThisMachineIsAMemberOfCounts) {
    const DomainMembership found = RealmDomainBackend::ParseList(
        "other.example\n  type: kerberos\n  configured: no\n"
        "CORP\n  realm-name: CORP.EXAMPLE\n  domain-name: corp.example\n"
        "  configured: kerberos-member\n"
        "third.example\n  domain-name: third.example\n  configured: kerberos-member\n");
    EXPECT_TRUE(found.joined);
    EXPECT_EQ(found.domain, "corp.example");
    EXPECT_FALSE(RealmDomainBackend::ParseList("other.example\n  configured: no\n").joined);
    EXPECT_FALSE(RealmDomainBackend::ParseList("").joined);
}

}  // namespace
}  // namespace ndpx
