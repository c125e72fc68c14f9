// The template handler's decisions: which join runs with which account and
// OU, what status the control plane gets, and what bad input does.

#include "config/mqttConfig.h"
#include "support/ManualTimeSource.h"
#include "support/TestRegistry.h"
#include "templates/TemplateHandler.h"

#include <json/reader.h>

#include <gtest/gtest.h>

#include <deque>

namespace ndpx {
namespace {

struct Status {
    std::string status;
    int kind;
    std::string detail;
};

class RecordingHost : public TemplateHost {
public:
    void publishTemplateStatus(const std::string& status, int kind,
                               const std::string& detail) override {
        statuses.push_back({status, kind, detail});
    }
    void requestSystemReboot() override { ++reboots; }
    void updateIDs(const std::string& edge, const std::string& tmpl) override {
        ids.emplace_back(edge, tmpl);
    }
    std::vector<Status> statuses;
    int reboots = 0;
    std::vector<std::pair<std::string, std::string>> ids;
};

// Joins answer from a script; a join may leave the machine a member even
// when it fails (an account that exists already).
class ScriptedDomain : public AbsDomainUtil {
public:
    struct Join {
        std::string domain, ou, user, password;
    };
    bool JoinDomain(const std::string& domain, const std::string& ou, const std::string& user,
                    const std::string& password, bool& rebootNeeded,
                    std::uint32_t& error) override {
        joins.push_back({domain, ou, user, password});
        error = results.empty() ? 0 : results.front();
        if (!results.empty()) {
            results.pop_front();
        }
        rebootNeeded = error == 0;
        member = member || memberAfterJoin;
        return error == 0;
    }
    bool IsInDomain() override { return member; }
    std::string DomainName() override { return member ? "corp.example" : ""; }
    void RefreshDomainInformation(bool) override {}
    std::string ErrorText(std::uint32_t code) override {
        return "realm said " + std::to_string(code);
    }

    std::deque<std::uint32_t> results;
    bool member = false;
    bool memberAfterJoin = false;
    std::vector<Join> joins;
};

class RecordingZone : public SystemTimeZone {
public:
    bool SetTimeZone(const std::string& name, bool disabled, const std::string& offset) override {
        calls.push_back(name + "|" + (disabled ? "1" : "0") + "|" + offset);
        return ok;
    }
    bool ok = true;
    std::vector<std::string> calls;
};

class TemplateHandlerTest : public ::testing::Test {
protected:
    TemplateHandlerTest() {
        domain_ = std::make_shared<ScriptedDomain>();
        zone_ = std::make_shared<RecordingZone>();
        handler_ = std::make_unique<TemplateHandler>(
            host_, [this] { return cfg_; }, TemplateBackends{domain_, zone_, nullptr}, clock_);
    }
    void send(const std::string& text) {
        Json::Value message;
        ASSERT_TRUE(Json::Reader().parse(text, message)) << text;
        handler_->ProcessMsg(message);
    }
    std::vector<std::string> statusWords() const {
        std::vector<std::string> words;
        for (const Status& s : host_.statuses) {
            words.push_back(s.status);
        }
        return words;
    }
    std::size_t logged(const std::string& text) { return reg_.log().count(text); }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::ManualTimeSource clock_;
    RecordingHost host_;
    std::shared_ptr<ScriptedDomain> domain_;
    std::shared_ptr<RecordingZone> zone_;
    std::unique_ptr<TemplateHandler> handler_;
};

const char* const kCustomize =
    R"({"domain":"corp.example","username":"joiner","password":"s3cret","defaultOU":"CN=Computers,DC=corp"})";

TEST_F(TemplateHandlerTest, AJoinDropsTheDefaultContainerAndAsksForARebootInsteadOfReporting) {
    send(kCustomize);
    ASSERT_EQ(domain_->joins.size(), 1u);
    EXPECT_EQ(domain_->joins[0].ou, "");
    EXPECT_EQ(domain_->joins[0].user, "joiner");
    EXPECT_EQ(host_.reboots, 1);
    EXPECT_TRUE(host_.statuses.empty());
    EXPECT_EQ(logged("s3cret"), 0u);

    // Another OU goes to the join lower-cased.
    send(R"({"domain":"corp.example","defaultOU":"OU=Desks,DC=corp"})");
    EXPECT_EQ(domain_->joins.at(1).ou, "ou=desks,dc=corp");
}

TEST_F(TemplateHandlerTest, AlreadyJoinedThenAMemberIsAvailableWithoutAnError) {
    domain_->results = {2691};
    domain_->memberAfterJoin = true;
    send(kCustomize);
    EXPECT_EQ(statusWords(), std::vector<std::string>{"AVAILABLE"});
    EXPECT_EQ(logged("Computer already on domain"), 1u);
    EXPECT_EQ(host_.reboots, 0);

    // A member now: a later customisation does not join again.
    send(kCustomize);
    EXPECT_EQ(domain_->joins.size(), 1u);
    EXPECT_EQ(statusWords(), (std::vector<std::string>{"AVAILABLE", "AVAILABLE"}));
}

TEST_F(TemplateHandlerTest, TheAuxiliaryAccountIsTriedOnlyWithBothNameAndPassword) {
    domain_->results = {1326, 1326};
    send(R"({"domain":"corp.example","username":"a","password":"p","auxiliaryUsername":"b"})");
    ASSERT_EQ(domain_->joins.size(), 1u);
    ASSERT_EQ(host_.statuses.size(), 1u);
    EXPECT_EQ(host_.statuses[0].detail,
              "Unable to join 'corp.example' domain using primary account, error : realm said "
              "1326");

    host_.statuses.clear();
    domain_->results = {1326, 1326};
    send(R"({"domain":"corp.example","username":"a","password":"p","auxiliaryUsername":"b",)"
         R"("auxiliaryPassword":"q"})");
    ASSERT_EQ(domain_->joins.size(), 3u);
    EXPECT_EQ(domain_->joins[2].user, "b");
    EXPECT_EQ(domain_->joins[2].password, "q");
    EXPECT_EQ(host_.statuses.at(0).status, "DOMAIN_ERR");
    EXPECT_EQ(host_.statuses[0].kind, 1);
    EXPECT_EQ(host_.statuses[0].detail,
              "Unable to join 'corp.example' domain using auxiliary account, error : realm said "
              "1326");
}

TEST_F(TemplateHandlerTest, BadMembersFallBackToTheirDefaultsAndAHugeOuIsRefused) {
    send(R"([1,2])");
    send(R"({"msgType":7,"vmReady":"no","domain":"corp.example"})");
    EXPECT_EQ(logged("Member msgType has the wrong type"), 1u);
    EXPECT_EQ(logged("Member vmReady has the wrong type"), 1u);
    EXPECT_EQ(domain_->joins.size(), 1u);  // ready by default: the join ran

    send(R"({"domain":"corp.example","defaultOU":")" + std::string(5000, 'x') + R"("})");
    EXPECT_EQ(domain_->joins.size(), 1u);
    EXPECT_EQ(host_.statuses.back().status, "DOMAIN_ERR");
}

TEST_F(TemplateHandlerTest, IdsAndTimeZoneMessagesReachTheirTargets) {
    send(R"({"msgType":"set_id","edgeId":"e2","templateId":"t9"})");
    send(R"({"msgType":"SET_ID","edgeId":"","templateId":"t9"})");
    ASSERT_EQ(host_.ids.size(), 1u);
    EXPECT_EQ(host_.ids[0], std::make_pair(std::string("e2"), std::string("t9")));
    EXPECT_EQ(logged("Unable to update IDs. edegeId: . shortTemplateId: t9"), 1u);

    send(R"({"msgType":"SET_TIMEZONE","vmTimeZone":"India Standard Time"})");
    EXPECT_TRUE(zone_->calls.empty());
    zone_->ok = false;
    send(
        R"({"msgType":"SET_TIMEZONE","vmTimeZone":{"timeZoneOffset":"-5:30","dayLightDisabled":true}})");
    EXPECT_EQ(zone_->calls, std::vector<std::string>{"|1|-5:30"});
    ASSERT_EQ(host_.statuses.size(), 1u);
    EXPECT_EQ(host_.statuses[0].status, "SET_TIMEZONE_FAILED");
    EXPECT_EQ(host_.statuses[0].detail, "Unable to set timezone to : -5:30");
}

TEST_F(TemplateHandlerTest, TheStartUpReportAsksForDomainInformationOnlyWhenNeeded) {
    handler_->ReportDomainJoin();
    domain_->member = true;
    handler_->ReportDomainJoin();
    domain_->member = false;
    reg_.setDword(test::kNodeManagerKey, "mqtt_SkipDomainJoin", 1);
    handler_->ReportDomainJoin();
    EXPECT_EQ(statusWords(), (std::vector<std::string>{"INIT", "AVAILABLE", "AVAILABLE"}));

    // An Azure AD join cannot be watched on this system.
    host_.statuses.clear();
    reg_.setDword(test::kNodeManagerKey, "mqtt_SkipDomainJoin", 0);
    send(R"({"azureActiveDirectoryJoined":true})");
    ASSERT_EQ(host_.statuses.size(), 1u);
    EXPECT_EQ(host_.statuses[0].status, "DOMAIN_ERR");
    EXPECT_EQ(host_.statuses[0].detail, "Unable to query Azure AD status");
}

}  // namespace
}  // namespace ndpx
