#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>

extern char** environ;  // NOLINT(readability-redundant-declaration): posix_spawn's argument

namespace ndpx::bench {
namespace {

using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, std::chrono::milliseconds limit) {
    std::array<int, 2> fds{};
    if (::pipe2(fds.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    output_.reset(fds[0]);
    platform::UniqueFd writeEnd(fds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + argv[0]);
    }
    pidFd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    // Only the child's copy of the write end stays open: its exit ends the read.
    writeEnd.reset();

    std::string seen;
    const auto deadline = Clock::now() + limit;
    while (seen.find("ready\n") == std::string::npos) {
        pollfd p{output_.get(), POLLIN, 0};
        std::array<char, 256> buf{};
        const ssize_t n = ::poll(&p, 1, remainingMs(deadline)) > 0
                              ? ::read(output_.get(), buf.data(), buf.size())
                              : -1;
        if (n <= 0) {
            stop();
            throw std::runtime_error(argv[0] + " did not get ready");
        }
        seen.append(buf.data(), static_cast<std::size_t>(n));
    }
}

ChildProcess::~ChildProcess() {
    stop();
}

void ChildProcess::stop() {
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, SIGTERM);
    pollfd p{pidFd_.get(), POLLIN, 0};
    if (!pidFd_ || ::poll(&p, 1, 5000) <= 0) {
        ::kill(pid_, SIGKILL);
    }
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string ownFolder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

}  // namespace ndpx::bench
