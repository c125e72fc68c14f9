// DomainUtil's own rules over a fake backend: bad arguments, the account it
// forms, one join per process, and what it does with the backend's failures.

#include "domain/DomainUtil.h"
#include "support/WaitUntil.h"

#include <mfw/log.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace ndpx {
namespace {

struct FakeBackend : DomainBackend {
    std::uint32_t Join(const std::string& domain, const std::string& ou, const std::string& account,
                       const std::string& password) override {
        joins.push_back(domain + "|" + ou + "|" + account + "|" + password);
        entered = true;
        release.wait();
        return joinResult;
    }
    std::uint32_t QueryMembership(DomainMembership& out) override {
        out = machine;
        return queryResult;
    }
    std::string ErrorText(std::uint32_t) override { return {}; }

    std::uint32_t joinResult = 0;
    std::uint32_t queryResult = 0;
    DomainMembership machine;
    std::vector<std::string> joins;
    std::atomic<bool> entered{false};
    std::promise<void> ready;
    std::shared_future<void> release = ready.get_future().share();
};

class DomainUtilTest : public ::testing::Test {
protected:
    DomainUtilTest() {
        backend_.ready.set_value();
        CORE::setLogLevel(0);
        CORE::addLogSink(log_);
    }
    ~DomainUtilTest() override { CORE::removeLogSink(log_); }
    bool join(const std::string& domain, const std::string& user = "alice") {
        return util_.JoinDomain(domain, "OU=Desks", user, "pw", reboot_, code_);
    }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    std::unique_ptr<FakeBackend> owned_ = std::make_unique<FakeBackend>();
    FakeBackend& backend_ = *owned_;
    DomainUtil util_{std::move(owned_)};
    bool reboot_ = true;
    std::uint32_t code_ = 0;
};

TEST_F(DomainUtilTest, JoinsOnceWithTheDomainAccountAndAfterwardsSucceedsAtOnce) {
    EXPECT_FALSE(join(""));
    EXPECT_EQ(code_, domain_error::kBadArguments);
    EXPECT_FALSE(reboot_);
    backend_.joinResult = domain_error::kJoinFailed;
    EXPECT_FALSE(join("corp.example", ""));
    EXPECT_EQ(code_, domain_error::kJoinFailed);
    EXPECT_TRUE(
        log_->contains("DomainUtil::JoinDomain: Failed to join domain. Error code: 0x20000001"));
    backend_.joinResult = 0;
    EXPECT_TRUE(join("corp.example"));
    EXPECT_TRUE(reboot_);
    EXPECT_EQ(code_, 0u);
    EXPECT_TRUE(util_.IsInDomain());
    EXPECT_EQ(util_.DomainName(), "corp.example");
    EXPECT_TRUE(join("other.example"));
    EXPECT_FALSE(reboot_);
    EXPECT_EQ(backend_.joins,
              (std::vector<std::string>{"corp.example|OU=Desks||pw",
                                        "corp.example|OU=Desks|corp.example\\alice|pw"}));
}

TEST_F(DomainUtilTest, AlreadyJoinedRereadsTheMembershipAndAFailedReadIsTriedAgain) {
    backend_.queryResult = domain_error::kQueryFailed;
    EXPECT_FALSE(util_.IsInDomain());
    EXPECT_TRUE(log_->contains(
        "DomainUtil::RefreshDomainInformation: NetGetJoinInformation error 0x20000006"));
    backend_.queryResult = 0;
    EXPECT_FALSE(util_.IsInDomain());
    backend_.machine = {true, "corp.example"};
    EXPECT_FALSE(util_.IsInDomain());  // read once, then kept
    backend_.joinResult = domain_error::kAlreadyJoined;
    EXPECT_FALSE(join("corp.example"));
    EXPECT_EQ(code_, domain_error::kAlreadyJoined);
    EXPECT_FALSE(reboot_);
    EXPECT_TRUE(
        log_->contains("DomainUtil::JoinDomain: Failed to join domain. Already joined a domain"));
    EXPECT_TRUE(util_.IsInDomain());
    EXPECT_EQ(util_.DomainName(), "corp.example");
}

TEST_F(DomainUtilTest, AJoinArrivingDuringAnotherWaitsForItAndDoesNotJoinAgain) {
    bool reboot = true;
    std::uint32_t code = 1;
    std::future<bool> first, second;  // destroyed after `hold`, so a failed check cannot hang
    std::promise<void> hold;
    backend_.release = hold.get_future().share();
    first = std::async(std::launch::async, [&] { return join("corp.example"); });
    ASSERT_TRUE(test::waitUntil([&] { return backend_.entered.load(); }));
    second = std::async(std::launch::async, [&] {
        return util_.JoinDomain("corp.example", "", "bob", "pw", reboot, code);
    });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    hold.set_value();
    EXPECT_TRUE(first.get() && second.get());
    EXPECT_FALSE(reboot);
    EXPECT_EQ(backend_.joins.size(), 1u);
}

}  // namespace
}  // namespace ndpx
