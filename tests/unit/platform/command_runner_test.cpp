// The command runner against /bin/sh: input in, output and exit code out,
// no descriptor leaks, and the kills at the time-out and the stop signal.

#include <platform/CommandRunner.h>

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

namespace ndpx::platform {
namespace {

using namespace std::chrono_literals;
using Outcome = CommandResult::Outcome;

CommandResult sh(const std::string& script, const std::string& input = {},
                 std::chrono::milliseconds timeout = 10s, const StopSignal* stop = nullptr,
                 std::size_t maxOutput = 65536) {
    return runCommand({.program = "sh",
                       .args = {"-c", script},
                       .input = input,
                       .timeout = timeout,
                       .stop = stop,
                       .maxOutput = maxOutput});
}

TEST(CommandRunner, WritesInputClosesItAndCollectsOutputAndExitCode) {
    const CommandResult echo = sh("cat; echo oops >&2; exit 3", "secret\nsecond");
    EXPECT_EQ(echo.outcome, Outcome::Exited);
    EXPECT_EQ(echo.exitCode, 3);
    EXPECT_EQ(echo.output, "secret\nsecond");
    EXPECT_EQ(echo.errorOutput, "oops\n");
    // Input the tool never reads, larger than any pipe holds, blocks nothing.
    EXPECT_TRUE(sh("exit 0", std::string(std::size_t{1} << 20, 'x')).succeeded());
    const CommandResult big = sh("head -c 100000 /dev/zero", {}, 10s, nullptr, 10);
    EXPECT_TRUE(big.succeeded());
    EXPECT_EQ(big.output.size(), 10u);
    EXPECT_TRUE(big.truncated);
    // A descriptor opened without close-on-exec stays in this process.
    const int leaky = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 3);
    EXPECT_EQ(sh("test -e /proc/$$/fd/" + std::to_string(leaky)).exitCode, 1);
    ::close(leaky);
}

TEST(CommandRunner, KillsTheToolAndWhatItStartedAtTheTimeOutAndOnStop) {
    const auto start = std::chrono::steady_clock::now();
    const CommandResult hung = sh("sleep 30 & echo $!; wait", {}, 300ms);
    EXPECT_EQ(hung.outcome, Outcome::TimedOut);
    EXPECT_TRUE(hung.killed());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    const pid_t sleeper = std::stoi(hung.output);
    EXPECT_TRUE(test::waitUntil([&] {
        std::ifstream stat("/proc/" + std::to_string(sleeper) + "/stat");
        std::string pid, name, state;
        return !(stat >> pid >> name >> state) || state == "Z";  // gone, or dead and unreaped
    }));

    StopSignal stop;
    stop.set();
    const CommandResult stopped = sh("sleep 30", {}, 10s, &stop);
    EXPECT_EQ(stopped.outcome, Outcome::Stopped);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

TEST(CommandRunner, AProgramNotOnPathIsReportedNotRun) {
    CommandRequest request;
    request.program = "ndpx-no-such-tool";
    const CommandResult missing = runCommand(request);
    EXPECT_EQ(missing.outcome, Outcome::NotFound);
    EXPECT_NE(missing.error.find("ndpx-no-such-tool"), std::string::npos);
    request.program.clear();
    EXPECT_EQ(runCommand(request).outcome, Outcome::NotFound);
}

}  // namespace
}  // namespace ndpx::platform
