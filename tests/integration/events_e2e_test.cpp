// An agent event, end to end: the control plane has the desktop report an
// event; agenthost with the module writes it to a journal socket the test
// binds and to the host log, and the module publishes it on the events topic.

#include "DesktopCloudTest.h"
#include "support/JournalSocket.h"

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

    // The desktop manager hands events on to the module; an unknown type is
    // published only.
    const std::string topic = "desktop/e1/vm7/agent/sessions/commands";
    ASSERT_TRUE(
        watch->publish(topic, R"({"ID":"ev-1","COMMAND":"SendEvent","Type":1019})", 1, false, 5s));
    ASSERT_TRUE(watch->publish(topic,
                               R"({"ID":"ev-2","COMMAND":"SendEvent","Type":1016,)"
                               R"("attributes":{"MachineName":"vm7","Description":"disk full"}})",
                               1, false, 5s));

    const auto entry = journal.next(20s);
    ASSERT_TRUE(entry) << agent.output();
    EXPECT_EQ(entry->at("PRIORITY"), "3");
    EXPECT_EQ(entry->at("SYSLOG_IDENTIFIER"), "ndpx-agent");
    // A JSON object's members come in name order.
    EXPECT_EQ(entry->at("MESSAGE"),
              "AGENT_CERTIFICATE_REFRESH_FAILED\nThe agent on machine vm7 failed to refresh its "
              "certificates. Cause: disk full\n\nAttributes:\n\tDescription=disk full\n\t"
              "MachineName=vm7");
    EXPECT_TRUE(agent.waitForLine("System: event: AGENT_CERTIFICATE_REFRESH_FAILED", 10s));
    EXPECT_TRUE(agent.waitForLine("EventLogger::RecordEvent(): Unexpected event type: 1019", 10s));
    EXPECT_FALSE(journal.next(0ms)) << "only the known event is written";

    std::string published;
    for (int n = 0; n < 2; ++n) {
        published += watch->waitForPayload("desktop/e1/vm7/agent/eventlogger", 20s).value_or("");
    }
    EXPECT_NE(published.find(R"("ID":"ev-1","Type":"1019")"), std::string::npos) << published;
    EXPECT_NE(published.find(R"("ID":"ev-2","Type":"1016")"), std::string::npos) << published;
    stop(agent);
}

}  // namespace
}  // namespace ndpx::test
