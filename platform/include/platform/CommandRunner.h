#pragma once
// Runs a system tool to completion without a shell: the program is looked up
// on PATH, given its arguments and a text on standard input (then closed, so
// the tool sees the end of its input), and its output is collected within a
// bound. A tool that outlives its time-out, or is still running when the
// stop signal is set, is killed with everything it started. Secrets go on
// standard input only: the environment is passed on unchanged and the
// arguments are visible to every user of the machine.

#include <platform/LocalSocket.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace ndpx::platform {

struct CommandRequest {
    std::string program;  // a name looked up on PATH, or a path
    std::vector<std::string> args;
    std::string input;  // written to standard input, which is then closed
    std::chrono::milliseconds timeout{30000};
    const StopSignal* stop = nullptr;
    std::size_t maxOutput = std::size_t{64} * 1024;  // per stream; the rest is read and dropped
};

struct CommandResult {
    enum class Outcome {
        Exited,      // ran to its end: exitCode holds its status
        Signalled,   // ended by a signal it was sent by someone else (signal)
        NotFound,    // no such program on PATH
        TimedOut,    // killed when the time-out passed
        Stopped,     // killed when the stop signal was set
        StartFailed  // could not be started (error says why)
    };
    Outcome outcome = Outcome::StartFailed;
    int exitCode = -1;
    int signal = 0;
    std::string output;       // standard output, at most maxOutput bytes
    std::string errorOutput;  // standard error, likewise
    bool truncated = false;   // either stream had more than maxOutput bytes
    std::string error;

    bool succeeded() const { return outcome == Outcome::Exited && exitCode == 0; }
    bool killed() const { return outcome == Outcome::TimedOut || outcome == Outcome::Stopped; }
};

// Blocks the calling thread until the program ends or is killed; the child is
// always reaped before it returns.
CommandResult runCommand(const CommandRequest& request);

const char* commandOutcomeText(CommandResult::Outcome outcome);

}  // namespace ndpx::platform
