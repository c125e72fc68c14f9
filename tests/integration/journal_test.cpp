// agenthost's "System" worker writing agent events to a journal socket that
// the test binds, and to the host log when there is no journal.

#include "host/SystemWorker.h"
#include "support/JournalSocket.h"
#include "support/TempDir.h"

#include <mfw/corestring.h>
#include <mfw/log.h>

#include <gtest/gtest.h>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kText =
    "AGENT_LAUNCH_FAILED\nFailed to launch Machine vm7\n\nAttributes:\n\tMachineName=vm7";

class JournalTest : public ::testing::Test {
protected:
    JournalTest() {
        CORE::setLogLevel(CORE::kLogVerbose);
        CORE::addLogSink(log_);
    }
    ~JournalTest() override { CORE::removeLogSink(log_); }

    // The "System" worker's answer to one event.
    int send(int eventLogType, const std::optional<std::string>& text) {
        CORE::PropertyBag request, response;
        request.setInt(L"wType", eventLogType);
        if (text) {
            request.set(L"text", CORE::toWide(*text));
        }
        return CORE::MessageHandler::SendMsg(L"System", L"WriteWindowsEvent", request, response,
                                             10000);
    }

    TempDir dir_;
    CORE::PluginLoader loader_;
    host::EventWriter writer_{platform::makeJournal((dir_.path() / "journal").string())};
    host::SystemWorker system_{loader_, writer_};
    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
};

TEST_F(JournalTest, EventsReachTheJournalWithTheirPriorityAndTheHostLog) {
    JournalSocket journal(dir_.path() / "journal");
    ASSERT_TRUE(journal.bound());
    for (const auto& [type, priority] : {std::pair{1, "3"}, {2, "4"}, {4, "6"}}) {
        ASSERT_EQ(send(type, kText), 0);
        const auto entry = journal.next(5s);
        ASSERT_TRUE(entry);
        EXPECT_EQ(*entry, (JournalSocket::Entry{{"MESSAGE", kText},
                                                {"PRIORITY", priority},
                                                {"SYSLOG_IDENTIFIER", "ndpx-agent"},
                                                {"NDPX_EVENT", "AGENT_LAUNCH_FAILED"}}));
    }
    EXPECT_EQ(log_->count("System: event: AGENT_LAUNCH_FAILED | Failed to launch Machine vm7 | "
                          "Attributes: | MachineName=vm7"),
              3u);

    // Larger than one datagram may be: shortened, and says so.
    const std::string big = "AGENT_LAUNCH_FAILED\n" + std::string(1u << 20, 'x');
    ASSERT_EQ(send(1, big), 0);
    const auto entry = journal.next(5s);
    ASSERT_TRUE(entry);
    const std::string& message = entry->at("MESSAGE");
    EXPECT_LT(message.size(), big.size());
    EXPECT_EQ(message.rfind(big.substr(0, 1000), 0), 0u);
    EXPECT_NE(message.find(" of " + std::to_string(big.size()) + " bytes]"), std::string::npos);
    EXPECT_TRUE(log_->contains("event too large for the journal, written shortened"));
}

TEST_F(JournalTest, WithoutAJournalTheHostLogHasTheEventAndWithNeitherTheAnswerIsAFailure) {
    EXPECT_EQ(send(1, kText), 0);
    EXPECT_TRUE(log_->contains("System: event not written to the journal"));
    EXPECT_TRUE(log_->contains("System: event: AGENT_LAUNCH_FAILED"));
    EXPECT_NE(send(1, std::nullopt), 0);
    EXPECT_TRUE(log_->contains("System: WriteWindowsEvent without text"));

    // A host log that keeps only errors does not take an information event.
    CORE::setLogLevel(CORE::kLogError);
    EXPECT_NE(send(4, kText), 0);
    EXPECT_EQ(send(1, kText), 0);
}

}  // namespace
}  // namespace ndpx::test
