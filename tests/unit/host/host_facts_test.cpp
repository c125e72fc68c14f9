// The desktop manager stand-in reports real facts about the machine and its
// login sessions, echoes requests unchanged and hands events on to the
// module.

#include "host/DesktopManagerStandIn.h"
#include "host/HostFacts.h"
#include "support/StubWorker.h"
#include "support/TempDir.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>

namespace ndpx::host {
namespace {

TEST(HostFacts, ParsesOsReleaseMeminfoAndUptime) {
    EXPECT_EQ(
        parseOsPrettyName("NAME=\"Debian\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"),
        "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(parseOsPrettyName("PRETTY_NAME=Plain\n"), "Plain");
    EXPECT_EQ(parseOsPrettyName("NAME=x\nID=y"), "");
    EXPECT_EQ(parseMemTotalBytes("MemTotal:        2017344 kB\nMemFree: 1 kB\n"),
              2017344ull * 1024);
    EXPECT_EQ(parseMemTotalBytes("MemFree: 1 kB\n"), 0u);
    EXPECT_EQ(parseUptimeSeconds("12345.67 23456.78\n"), 12345u);
    EXPECT_EQ(parseUptimeSeconds(""), 0u);
}

utmpx record(short type, const char* user, const char* line, const char* host, int pid,
             long seconds) {
    utmpx u{};
    u.ut_type = type;
    u.ut_pid = pid;
    std::strncpy(u.ut_user, user, sizeof u.ut_user);
    std::strncpy(u.ut_line, line, sizeof u.ut_line);
    std::strncpy(u.ut_host, host, sizeof u.ut_host);
    u.ut_tv.tv_sec = static_cast<decltype(u.ut_tv.tv_sec)>(seconds);
    return u;
}

TEST(HostFacts, LoginSessionsAreTheUserProcessesOfUtmp) {
    test::TempDir dir;
    const std::string file = (dir.path() / "utmp").string();
    {
        std::ofstream out(file, std::ios::binary);
        const utmpx records[] = {
            record(BOOT_TIME, "reboot", "~", "", 0, 1000),
            record(USER_PROCESS, "alice", "pts/0", "10.0.0.7", 4242, 1700000000),
            record(LOGIN_PROCESS, "LOGIN", "tty1", "", 77, 1700000001),
            record(DEAD_PROCESS, "", "pts/1", "", 0, 1700000002),
            // A user name that fills its field has no terminating NUL.
            record(USER_PROCESS, std::string(sizeof(utmpx::ut_user), 'b').c_str(), "tty2", "", 99,
                   1700000100),
        };
        out.write(reinterpret_cast<const char*>(records), sizeof records);
    }
    const auto sessions = collectLoginSessions(file);
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0].user, "alice");
    EXPECT_EQ(sessions[0].tty, "pts/0");
    EXPECT_EQ(sessions[0].host, "10.0.0.7");
    EXPECT_EQ(sessions[0].pid, 4242);
    EXPECT_EQ(sessions[0].loginTime, 1700000000);
    EXPECT_EQ(sessions[1].user, std::string(sizeof(utmpx::ut_user), 'b'));
    EXPECT_EQ(sessions[1].host, "");

    EXPECT_TRUE(collectLoginSessions((dir.path() / "missing").string()).empty());
}

class DesktopManagerStandInTest : public ::testing::Test {
protected:
    void SetUp() override { addDesktopManagerStandIn(); }
    void TearDown() override {
        CORE::MessageFrameWork::System().RemoveWorker(L"DesktopManager", 0);
    }

    static int send(const std::wstring& op, const CORE::PropertyBag& request,
                    CORE::PropertyBag& response) {
        return CORE::MessageHandler::SendMsg(L"DesktopManager", op, request, response, 10000);
    }
};

TEST_F(DesktopManagerStandInTest, GetHostFactsAndListSessionsAnswerWithTheMachinesFacts) {
    CORE::PropertyBag response;
    ASSERT_EQ(send(L"GetHostFacts", {}, response), CORE::kErrorSuccess);
    const HostFacts facts = collectHostFacts();
    utsname uts{};
    ASSERT_EQ(::uname(&uts), 0);
    EXPECT_EQ(facts.hostname, uts.nodename);
    EXPECT_EQ(facts.kernelRelease, uts.release);
    EXPECT_GT(facts.cpuCount, 0u);
    EXPECT_GT(facts.memoryTotalBytes, 0u);
    EXPECT_GT(facts.uptimeSeconds, 0u);
    EXPECT_EQ(response.get(L"HOSTNAME", L""), CORE::toWide(facts.hostname));
    EXPECT_EQ(response.get(L"KERNEL_RELEASE", L""), CORE::toWide(facts.kernelRelease));
    EXPECT_EQ(response.getInt64(L"CPU_COUNT"), static_cast<std::int64_t>(facts.cpuCount));
    EXPECT_EQ(response.getInt64(L"MEMORY_TOTAL_BYTES"),
              static_cast<std::int64_t>(facts.memoryTotalBytes));
    EXPECT_TRUE(response.has(L"OS_NAME"));
    EXPECT_TRUE(response.getInt64(L"UPTIME_SECONDS").has_value());
    EXPECT_EQ(response.get(L"RESULT", L""), L"OK");

    CORE::PropertyBag sessions;
    ASSERT_EQ(send(L"listsessions", {}, sessions), CORE::kErrorSuccess);
    const auto count = sessions.getInt64(L"SESSION_COUNT");
    ASSERT_TRUE(count.has_value());
    EXPECT_EQ(sessions.count(L"SESSION"), static_cast<std::size_t>(*count));
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        if (sessions.getName(i) == L"SESSION") {
            const CORE::PropertyBag* s = sessions.getBagPtr(i);
            ASSERT_NE(s, nullptr);
            EXPECT_TRUE(s->has(L"USER") && s->has(L"TTY") && s->has(L"HOST") &&
                        s->has(L"LOGIN_TIME"));
        }
    }
}

TEST_F(DesktopManagerStandInTest, EchoReturnsTheRequestStampedAndUnknownCommandsAnError) {
    CORE::PropertyBag request;
    request.set(L"ID", L"42");
    request.add(L"DATA", L"x");
    request.add(L"DATA", L"y");
    CORE::PropertyBag nested;
    nested.set(L"K", L"V");
    request.addBag(L"NESTED", nested);
    CORE::PropertyBag response;
    ASSERT_EQ(send(L"Echo", request, response), CORE::kErrorSuccess);
    CORE::PropertyBag again;
    ASSERT_EQ(send(L"Echo", request, again), CORE::kErrorSuccess);
    // Each run is stamped with the process and a count of its own.
    EXPECT_EQ(response.getInt64(L"EXEC_PID"), static_cast<long long>(::getpid()));
    EXPECT_EQ(again.getInt64(L"EXEC_SEQ").value_or(0),
              response.getInt64(L"EXEC_SEQ").value_or(0) + 1);
    response.remove(L"EXEC_PID");
    response.remove(L"EXEC_SEQ");
    EXPECT_EQ(response, request);

    CORE::PropertyBag unknown;
    EXPECT_EQ(send(L"NoSuchCommand", {}, unknown), CORE::kErrorNotImplemented);
    EXPECT_EQ(unknown.get(L"ERROR", L""), L"Unknown command NoSuchCommand");
}

// A certificate event from the module comes back to the module's worker
// unchanged, to be published; the sender is answered without waiting for it,
// and also when the module is gone.
TEST_F(DesktopManagerStandInTest, SendEventIsHandedOnToTheModuleUnchanged) {
    CORE::PropertyBag event;
    event.setInt64(L"Type", 1016);
    CORE::PropertyBag attributes;
    attributes.set(L"Description", L"NO OTP");
    event.addBag(L"attributes", attributes);
    {
        test::StubWorker mqtt(L"MQTT");
        CORE::PropertyBag response;
        ASSERT_EQ(send(L"SendEvent", event, response), CORE::kErrorSuccess);
        EXPECT_EQ(response.get(L"RESULT", L""), L"OK");
        const auto relayed = mqtt.nextMessage();
        ASSERT_TRUE(relayed);
        EXPECT_EQ(relayed->operation, L"SendEvent");
        EXPECT_EQ(relayed->request, event);
        EXPECT_EQ(relayed->request.getInt64(L"Type"), 1016);
    }
    CORE::PropertyBag response;
    EXPECT_EQ(send(L"sendevent", event, response), CORE::kErrorSuccess);
}

}  // namespace
}  // namespace ndpx::host
