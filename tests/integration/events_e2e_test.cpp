// An agent event, end to end: an operator has the desktop report an event
// with agentctl; agenthost with the module writes it to a journal socket the test
// binds and to the host log, and the module publishes it on the events topic.
// Events accepted while the broker is away outlive a kill of the agent.

#include "DesktopCloudTest.h"
#include "support/JournalSocket.h"

#include <set>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

class EventsTest : public DesktopCloudTest {};

TEST_F(EventsTest, AnEventReachesTheJournalTheHostLogAndTheEventsTopic) {
    startCloud();
    TempDir journalDir;
    JournalSocket journal(journalDir.path() / "journal");
    ASSERT_TRUE(journal.bound());
    Process agent({AGENTHOST_PATH, "--root", root_.path().string(), "--plugin", MODULE_PATH,
                   "--log-level", "0", "--journal-socket", journal.path().string()});
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent.waitForLine(kConnected, 60s)) << agent.output();
    auto watch = watcher();

    // agentctl hands events to the module; an unknown type is published only.
    ASSERT_EQ(agentctl({"event", "1019"}).status, 0);
    const auto sent = agentctl({"event", "1016", "MachineName=vm7", "Description=disk full"});
    ASSERT_EQ(sent.status, 0) << sent.output;

    const auto entry = journal.next(20s);
    ASSERT_TRUE(entry) << agent.output();
    EXPECT_EQ(entry->at("PRIORITY"), "3");
    EXPECT_EQ(entry->at("SYSLOG_IDENTIFIER"), "ndpx-agent");
    // A JSON object's members come in name order.
    EXPECT_EQ(entry->at("MESSAGE"),
              "AGENT_CERTIFICATE_REFRESH_FAILED\nThe agent on machine vm7 failed to refresh its "
              "certificates. Cause: disk full\n\nAttributes:\n\tDescription=disk full\n\t"
              "MachineName=vm7");
    const std::string hostLog = "System: event: AGENT_CERTIFICATE_REFRESH_FAILED";
    EXPECT_TRUE(agent.waitForLine(hostLog, 10s));
    EXPECT_TRUE(agent.waitForLine("EventLogger::RecordEvent(): Unexpected event type: 1019", 10s));
    EXPECT_FALSE(journal.next(0ms)) << "only the known event is written, once";
    EXPECT_EQ(agent.countLines(hostLog), 1u);

    std::string published;
    for (int n = 0; n < 2; ++n) {
        published += watch->waitForPayload("desktop/e1/vm7/agent/eventlogger", 20s).value_or("");
    }
    EXPECT_NE(published.find(R"({"Type":"1019"})"), std::string::npos) << published;
    EXPECT_NE(published.find(R"({"Type":"1016","attributes":{"Description":"disk full",)"
                             R"("MachineName":"vm7"}})"),
              std::string::npos)
        << published;
    stop(agent);
}

// What the agent accepted while the broker was away rests in its message
// store; a SIGKILL loses none of it, and the next process sends it.
TEST_F(EventsTest, EventsAcceptedWhileTheBrokerIsAwayOutliveAKilledAgent) {
    startCloud();
    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    stopBroker();
    ASSERT_TRUE(agent->waitForLine("Connection lost", 20s)) << agent->output();
    for (const char* n : {"N=1", "N=2", "N=3"}) {
        ASSERT_EQ(agentctl({"event", "1019", n}).status, 0);
    }
    ASSERT_TRUE(agent->waitForLine(R"("N":"3")", 10s)) << agent->output();
    agent->signal(SIGKILL);
    ASSERT_TRUE(agent->wait(10s));

    startBroker({});
    auto watch = watcher();
    auto next = startAgent();
    std::set<std::string> seen;
    while (seen.size() < 3) {
        const auto payload = watch->waitForPayload("desktop/e1/vm7/agent/eventlogger", 30s);
        ASSERT_TRUE(payload) << next->output();
        seen.insert(*payload);
    }
    EXPECT_TRUE(seen.contains(R"({"Type":"1019","attributes":{"N":"2"}})")) << *seen.begin();
    stop(*next);
}

}  // namespace
}  // namespace ndpx::test
