// Desktop template messages end to end: the real agenthost and module, the
// devcloud broker and credential service, and a stand-in `realm` first on
// PATH that records its arguments and standard input.

#include "DesktopCloudTest.h"
#include "TopicLog.h"
#include "support/RealmStandin.h"

#include <algorithm>
#include <filesystem>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kTemplateTopic = "desktop/e1/vm7/agent/receive/dtemplate";
const std::string kPassword = "Pa55-w0rd!x";

class TemplateTest : public DesktopCloudTest {
protected:
    TemplateTest() {
        startCloud();
        watch_ = watcher([this](const devcloud::Message& m) { statuses_(m); });
    }

    // A connected agent, subscribed to its template topic: it has asked
    // for its domain information ("INIT" after "NEED_ID").
    std::unique_ptr<Process> connectedAgent() {
        auto agent = startAgent();
        provisionInto(root_, url_, "vm7");
        EXPECT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
        EXPECT_TRUE(waitForStatus("INIT")) << agent->output();
        return agent;
    }
    void sendTemplate(const std::string& json) {
        ASSERT_TRUE(watch_->publish(kTemplateTopic, json, 1, false));
    }
    // The status words received so far, in order.
    std::vector<std::string> statuses() const {
        std::vector<std::string> words;
        for (const auto& [at, message] : statuses_.all()) {
            words.push_back(message["status"].asString());
        }
        return words;
    }
    bool waitForStatus(const std::string& word, std::size_t nth = 1,
                       std::chrono::milliseconds limit = 30s) const {
        return waitUntil(
            [&] {
                const auto words = statuses();
                return static_cast<std::size_t>(std::count(words.begin(), words.end(), word)) >=
                       nth;
            },
            limit);
    }
    std::filesystem::path localtime() const { return root_.path() / "etc" / "localtime"; }

    RealmStandin realm_;
    TopicLog statuses_{"desktop/e1/vm7/agent/status"};
    std::unique_ptr<MqttTestClient> watch_;
};

TEST_F(TemplateTest, AJoinAsksForARebootAndTheRestartedAgentIsAvailable) {
    auto agent = connectedAgent();
    sendTemplate(R"({"domain":"corp.example","username":"joiner","password":")" + kPassword +
                 R"(","defaultOU":"CN=Computers,DC=corp,DC=example"})");
    ASSERT_TRUE(agent->waitForLine("Sending request for system reboot due to domain join"))
        << agent->output();
    ASSERT_TRUE(agent->waitForLine("not rebooting")) << agent->output();
    EXPECT_EQ(realm_.record("join.args"), "join\n--user=joiner\ncorp.example\n");
    EXPECT_EQ(realm_.record("join.stdin"), kPassword + "\n");
    EXPECT_EQ(realm_.record("join.env").find(kPassword), std::string::npos);
    EXPECT_EQ(agent->output().find(kPassword), std::string::npos);
    stop(*agent);
    const auto before = statuses();
    EXPECT_EQ(std::count(before.begin(), before.end(), "AVAILABLE"), 0);

    auto again = startAgent();
    ASSERT_TRUE(waitForStatus("AVAILABLE")) << again->output();
    const auto words = statuses();
    EXPECT_EQ(std::vector<std::string>(words.end() - 2, words.end()),
              (std::vector<std::string>{"NEED_ID", "AVAILABLE"}));
    stop(*again);
}

TEST_F(TemplateTest, AFailedJoinReportsTheAuxiliaryErrorAndANotReadyDesktopIsPolled) {
    realm_.setJoinMode("fail");
    auto agent = connectedAgent();
    sendTemplate(R"({"domain":"corp.example","username":"a","password":")" + kPassword +
                 R"(","auxiliaryUsername":"b","auxiliaryPassword":"aux-)" + kPassword + R"("})");
    ASSERT_TRUE(waitForStatus("DOMAIN_ERR")) << agent->output();
    const Json::Value error = statuses_.all().back().second;
    EXPECT_EQ(error["errMsg"].asString().rfind(
                  "Unable to join 'corp.example' domain using auxiliary account, error : ", 0),
              0u)
        << error.toStyledString();
    EXPECT_EQ(error.toStyledString().find(kPassword), std::string::npos);

    // Not ready: "INIT" again every 3.75 to 5 s, until the desktop is ready.
    sendTemplate(R"({"vmReady":false,"pollInterval":5})");
    ASSERT_TRUE(waitForStatus("INIT", 3, 20s)) << agent->output();
    sendTemplate(R"({"domain":"corp.example","username":"a","password":"p"})");
    ASSERT_TRUE(waitForStatus("DOMAIN_ERR", 2)) << agent->output();
    const auto all = statuses_.all();
    std::vector<TopicLog::Clock::time_point> polls;
    for (const auto& [at, message] : all) {
        if (message["status"] == "INIT") {
            polls.push_back(at);
        }
    }
#ifndef NDPX_SANITIZED  // a sanitizer's slow-down says nothing about the schedule
    for (std::size_t i = 2; i < polls.size(); ++i) {
        EXPECT_GE(polls[i] - polls[i - 1], 3750ms - 250ms);
        EXPECT_LE(polls[i] - polls[i - 1], 5000ms + 250ms);
    }
#endif
    const std::size_t initsAfterReady = polls.size();
    EXPECT_FALSE(waitForStatus("INIT", initsAfterReady + 1, 5250ms));
    stop(*agent);
}

TEST_F(TemplateTest, TimeZonesByNameAndOffsetAndAnUnknownNameFails) {
    auto agent = connectedAgent();
    sendTemplate(R"({"msgType":"SET_TIMEZONE","vmTimeZone":{"timeZone":"India Standard Time"}})");
    ASSERT_TRUE(waitUntil([&] { return std::filesystem::is_symlink(localtime()); }, 20s))
        << agent->output();
    const std::string zone = std::filesystem::read_symlink(localtime()).string();
    EXPECT_TRUE(zone.ends_with("Asia/Kolkata") || zone.ends_with("Asia/Calcutta")) << zone;

    sendTemplate(R"({"msgType":"set_timezone","vmTimeZone":{"timeZoneOffset":"-5:30"}})");
    ASSERT_TRUE(
        waitUntil([&] { return std::filesystem::read_symlink(localtime()).string() != zone; }, 20s))
        << agent->output();
    const auto offset = run(
        {"/usr/bin/env", "TZ=:" + std::filesystem::canonical(localtime()).string(), "date", "+%z"});
    EXPECT_EQ(offset.output, "-0530\n");

    sendTemplate(R"({"msgType":"SET_TIMEZONE","vmTimeZone":{"timeZone":"Nowhere Standard Time"}})");
    ASSERT_TRUE(waitForStatus("SET_TIMEZONE_FAILED")) << agent->output();
    EXPECT_EQ(statuses_.all().back().second["errMsg"].asString(),
              "Unable to set timezone to : Nowhere Standard Time");
    stop(*agent);
}

}  // namespace
}  // namespace ndpx::test
