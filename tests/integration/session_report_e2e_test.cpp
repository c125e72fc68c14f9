// Session reports end to end: agenthost's desktop manager reports the login
// sessions of the desktop's utmp file every 75-100% of "AsyncSessionSeconds",
// the module strips the fields the control plane configured and publishes
// them; a migration pauses them; a StartSession answer carries the address
// and listener ports. devcloud's broker and credential service, regctl and
// agenthost with the module are all real processes.

#include "DesktopCloudTest.h"
#include "TopicLog.h"
#include "support/WaitUntil.h"

#include <utmpx.h>

#include <cstring>
#include <fstream>
#include <iostream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kConfiguration =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Agent\\Configuration";
const std::string kSkipped =
    "AsyncReportGenerator::ReportGeneratorThreadProc(): Migration in progress, skipping session "
    "report";

// The sessions of a report, whether one (an object) or several (an array).
std::vector<Json::Value> sessionsOf(const Json::Value& report) {
    const Json::Value& s = report["SESSION"];
    if (s.isArray()) {
        return {s.begin(), s.end()};
    }
    return s.isObject() ? std::vector<Json::Value>{s} : std::vector<Json::Value>{};
}

class SessionReportTest : public DesktopCloudTest {
protected:
    SessionReportTest() { startCloud(); }

    void regctl(const std::vector<std::string>& args) {
        std::vector<std::string> argv{REGCTL_PATH, "--root", root_.path().string(), "set"};
        argv.insert(argv.end(), args.begin(), args.end());
        const auto r = run(argv);
        ASSERT_EQ(r.status, 0) << r.output;
    }
    // One logged-in user in the desktop's utmp file.
    void writeUtmp() {
        const auto file = root_.path() / std::filesystem::path(_PATH_UTMPX).relative_path();
        std::filesystem::create_directories(file.parent_path());
        utmpx u{};
        u.ut_type = USER_PROCESS;
        u.ut_pid = 4242;
        std::strncpy(u.ut_user, "alice", sizeof u.ut_user);
        std::strncpy(u.ut_line, "pts/0", sizeof u.ut_line);
        u.ut_tv.tv_sec = 1700000000;
        std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(&u), sizeof u);
    }
    Json::Value startSession() {
        const auto r =
            run({DEVCLOUD_PATH, "send", "--dir", dir(), "--port", std::to_string(brokerPort_),
                 "--desktop", "e1/vm7", "--command", "StartSession", "--timeout", "20"});
        EXPECT_EQ(r.status, 0) << r.output;
        return parseJson(r.output.substr(std::min(r.output.find('{'), r.output.size())));
    }
};

TEST_F(SessionReportTest, ReportsArriveStrippedOnScheduleFollowTheirConfigAndPauseForMigration) {
    regctlSet("AsyncSessionSeconds", "5");
    regctl({kConfiguration + "\\XMLAPI", "ExternalIPAddress", "203.0.113.5"});
    regctl({kConfiguration, "Listeners", "--type", "multi", "tcp:4172", "udp:4173", "bad"});
    writeUtmp();
    TopicLog reports("desktop/e1/vm7/agent/sessions/report");
    auto watch = watcher([&reports](const devcloud::Message& m) { reports(m); });
    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();

    // The answer to StartSession, with the listeners as one multi-string and
    // then as named values.
    Json::Value answer = startSession();
    EXPECT_EQ(answer["PROTOCOL"]["HOST"].asString(), "203.0.113.5") << answer.toStyledString();
    EXPECT_EQ(answer["LISTENERS"], parseJson(R"({"tcp":"4172","udp":"4173"})"))
        << answer.toStyledString();
    EXPECT_TRUE(agent->waitForLine("Malformed listener string (bad)"));
    regctl({kConfiguration + "\\Listeners", "ssh", "22"});
    answer = startSession();
    EXPECT_EQ(answer["LISTENERS"], parseJson(R"({"ssh":"22"})")) << answer.toStyledString();

    ASSERT_TRUE(reports.waitFor(4)) << agent->output();
    const auto first = reports.all();
    std::string gaps;  // printed so a run shows the schedule it measured
    for (std::size_t i = 0; i < first.size(); ++i) {
        const Json::Value& r = first[i].second;
        EXPECT_FALSE(r.isMember("DOMAIN") || r.isMember("AGENTUPDATE")) << r.toStyledString();
        EXPECT_TRUE(r.isMember("HOSTNAME")) << r.toStyledString();
        const auto sessions = sessionsOf(r);
        ASSERT_EQ(sessions.size(), 1u) << r.toStyledString();
        EXPECT_EQ(sessions[0]["USER"].asString(), "alice");
        EXPECT_FALSE(sessions[0].isMember("GROUPSIDS") || sessions[0].isMember("HOSTPODID"))
            << r.toStyledString();
#ifndef NDPX_SANITIZED  // a sanitizer's slow-down says nothing about the schedule
        if (i > 0) {
            const auto gap = first[i].first - first[i - 1].first;
            gaps +=
                std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(gap).count()) +
                " ms ";
            EXPECT_GE(gap, 3750ms - 250ms);
            EXPECT_LE(gap, 5000ms + 250ms);
        }
#endif
    }
    std::cout << "gaps between session reports: " << gaps << "\n";

    // The control plane's configuration changes which fields go.
    ASSERT_TRUE(watch->publish(
        "desktop/bootstrap/e1t3_vm7",
        R"({"SessionReportConfig":{"UNWANTEDFIELDS":["HOSTNAME"],"UNWANTEDSESSIONFIELDS":["SEAT"]}})",
        1, false));
    ASSERT_TRUE(waitUntil(
        [&] {
            const auto latest = reports.all().back().second;
            return !latest.isMember("HOSTNAME") && latest.isMember("DOMAIN");
        },
        20s))
        << agent->output();
    const auto session = sessionsOf(reports.all().back().second).at(0);
    EXPECT_TRUE(session.isMember("GROUPSIDS") && !session.isMember("SEAT"))
        << session.toStyledString();

    // A migration pauses the reports; its end brings them back.
    regctlSet("mqtt_MigrationStatus", "1");
    ASSERT_TRUE(agent->waitForLine(kSkipped, 20s));
    const std::size_t paused = reports.count();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kSkipped) >= 2; }, 20s));
    EXPECT_EQ(reports.count(), paused);
    regctlSet("mqtt_MigrationStatus", "0");
    EXPECT_TRUE(reports.waitFor(paused + 1));
    stop(*agent);
}

}  // namespace
}  // namespace ndpx::test
