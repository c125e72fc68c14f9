#include <platform/CommandRunner.h>

#include <platform/TimeSource.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>
#include <system_error>

extern char** environ;

namespace ndpx::platform {
namespace {

using Clock = std::chrono::steady_clock;
// Without a process descriptor to wait on, the child's end is looked for
// this often.
constexpr std::chrono::milliseconds kExitCheck{20};
// After the tool ended, how long its output may still take to drain before
// whatever it left behind holding the pipes is killed.
constexpr std::chrono::milliseconds kDrainAfterExit{500};

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawnattr_init(&attr);
        ::posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attr);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
};

// The child leads its own process group, so a kill reaches whatever it
// started too. It is reaped on every path, and only signalled before that,
// so its process ID cannot have been reused by then.
class Child {
public:
    explicit Child(pid_t pid)
        : pid_(pid), exitFd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {}
    ~Child() {
        if (pid_ > 0) {
            killGroup();
            reap();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void killGroup() const { ::kill(-pid_, SIGKILL); }
    // Readable once the child has ended; -1 when the system has no such
    // descriptor, and exited() must be asked instead.
    int exitHandle() const { return exitFd_.get(); }
    bool exited() const {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == pid_;
    }
    int reap() {
        int status = 0;
        pid_t rc;
        do {
            rc = ::waitpid(pid_, &status, 0);
        } while (rc < 0 && errno == EINTR);
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_;
    UniqueFd exitFd_;
};

// Standard input is a socket pair, not a pipe: a write after the tool closed
// its input then fails with EPIPE instead of raising SIGPIPE in this process.
// Our end does not block; the tool's end is as tools expect.
bool makeChannel(bool isInput, UniqueFd& parentEnd, UniqueFd& childEnd, std::string& error) {
    int fds[2];
    const int rc = isInput ? ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds)
                           : ::pipe2(fds, O_CLOEXEC);
    if (rc != 0) {
        error = std::string(isInput ? "socketpair: " : "pipe: ") + errnoText(errno);
        return false;
    }
    parentEnd.reset(fds[0]);
    childEnd.reset(fds[1]);
    if (::fcntl(parentEnd.get(), F_SETFL, O_NONBLOCK) != 0) {
        error = "fcntl: " + errnoText(errno);
        return false;
    }
    return true;
}

// Reads what is there; closes `fd` at the end of the stream.
void readSome(UniqueFd& fd, std::string& text, std::size_t maxBytes, bool& truncated) {
    char buffer[16384];
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n <= 0) {
        fd.reset();
        return;
    }
    const std::size_t room = maxBytes - std::min(maxBytes, text.size());
    const std::size_t keep = std::min(room, static_cast<std::size_t>(n));
    text.append(buffer, keep);
    truncated = truncated || keep < static_cast<std::size_t>(n);
}

void writeSome(UniqueFd& fd, std::string_view& pending) {
    const ssize_t n = ::send(fd.get(), pending.data(), pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n < 0) {
        pending = {};  // the tool closed its input: what it did not read is not wanted
    } else {
        pending.remove_prefix(static_cast<std::size_t>(n));
    }
    if (pending.empty()) {
        fd.reset();
    }
}

bool spawn(const CommandRequest& request, UniqueFd (&childEnds)[3], pid_t& pid,
           CommandResult& result) {
    SpawnSetup setup;
    for (int target = 0; target < 3; ++target) {
        ::posix_spawn_file_actions_adddup2(&setup.actions, childEnds[target].get(), target);
    }
    // Descriptors some library opened without close-on-exec stay here.
    ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
    ::posix_spawnattr_setpgroup(&setup.attr, 0);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&setup.attr, &signals);
    // Signals this process ignores would stay ignored in the tool.
    for (const int sig : {SIGPIPE, SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGCHLD}) {
        ::sigaddset(&signals, sig);
    }
    ::posix_spawnattr_setsigdefault(&setup.attr, &signals);
    ::posix_spawnattr_setflags(
        &setup.attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(request.program.c_str()));
    for (const std::string& arg : request.args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const int rc = request.program.empty()
                       ? ENOENT
                       : ::posix_spawnp(&pid, request.program.c_str(), &setup.actions, &setup.attr,
                                        argv.data(), environ);
    if (rc == 0) {
        return true;
    }
    if (rc == ENOENT || rc == ENOTDIR) {
        result.outcome = CommandResult::Outcome::NotFound;
        result.error = "'" + request.program + "' not found on PATH";
    } else {
        result.error = "cannot start '" + request.program + "': " + errnoText(rc);
    }
    return false;
}

}  // namespace

const char* commandOutcomeText(CommandResult::Outcome outcome) {
    switch (outcome) {
        case CommandResult::Outcome::Exited:
            return "exited";
        case CommandResult::Outcome::Signalled:
            return "ended by a signal";
        case CommandResult::Outcome::NotFound:
            return "not found";
        case CommandResult::Outcome::TimedOut:
            return "timed out";
        case CommandResult::Outcome::Stopped:
            return "stopped";
        case CommandResult::Outcome::StartFailed:
            break;
    }
    return "could not be started";
}

CommandResult runCommand(const CommandRequest& request) {
    CommandResult result;
    UniqueFd input, output, errors;
    UniqueFd childEnds[3];
    if (!makeChannel(true, input, childEnds[0], result.error) ||
        !makeChannel(false, output, childEnds[1], result.error) ||
        !makeChannel(false, errors, childEnds[2], result.error)) {
        return result;
    }
    pid_t pid = -1;
    if (!spawn(request, childEnds, pid, result)) {
        return result;
    }
    for (UniqueFd& end : childEnds) {
        end.reset();  // the tool's own copies are the only ones left
    }
    Child child(pid);

    std::string_view pending = request.input;
    if (pending.empty()) {
        input.reset();
    }
    auto deadline = deadlineAfter(Clock::now(), request.timeout);
    bool exited = false;
    result.outcome = CommandResult::Outcome::Exited;
    while (!exited || output || errors) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            if (!exited) {
                result.outcome = CommandResult::Outcome::TimedOut;
            }
            break;
        }
        if (!exited && child.exitHandle() < 0) {
            left = std::min(left, kExitCheck);
        }
        pollfd fds[5] = {
            {output.get(), POLLIN, 0},
            {errors.get(), POLLIN, 0},
            {input.get(), POLLOUT, 0},
            {exited ? -1 : child.exitHandle(), POLLIN, 0},
            {request.stop != nullptr ? request.stop->waitHandle() : -1, POLLIN, 0},
        };
        const int timeoutMs = static_cast<int>(std::min<long long>(left.count(), INT32_MAX));
        if (::poll(fds, 5, timeoutMs) < 0 && errno != EINTR) {
            result.outcome = CommandResult::Outcome::StartFailed;
            result.error = "poll: " + errnoText(errno);
            break;
        }
        if (fds[4].revents != 0) {
            result.outcome = CommandResult::Outcome::Stopped;
            break;
        }
        if (fds[0].revents != 0) {
            readSome(output, result.output, request.maxOutput, result.truncated);
        }
        if (fds[1].revents != 0) {
            readSome(errors, result.errorOutput, request.maxOutput, result.truncated);
        }
        if (fds[2].revents != 0) {
            writeSome(input, pending);
        }
        if (!exited && (fds[3].revents != 0 || (child.exitHandle() < 0 && child.exited()))) {
            exited = true;
            deadline = std::min(deadline, Clock::now() + kDrainAfterExit);
        }
    }
    if (result.outcome != CommandResult::Outcome::Exited || output || errors) {
        child.killGroup();
    }
    const int status = child.reap();
    if (result.outcome == CommandResult::Outcome::Exited) {
        if (WIFEXITED(status)) {
            result.exitCode = WEXITSTATUS(status);
        } else {
            result.outcome = CommandResult::Outcome::Signalled;
            result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        }
    }
    return result;
}

}  // namespace ndpx::platform
