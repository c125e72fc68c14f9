#include "devcloud/BrokerProcess.h"

#include "devcloud/BrokerConfig.h"

#include <platform/UniqueFd.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndpx::devcloud {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

bool acceptsTcp(const std::string& host, int port) {
    const platform::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return fd.get() >= 0 && ::inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1 &&
           ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

}  // namespace

std::string readTextFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool waitForFileText(const fs::path& file, const std::string& text, std::size_t offset,
                     std::chrono::milliseconds limit, int exitFd) {
    const auto deadline = Clock::now() + limit;
    const platform::UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const fs::path dir = file.has_parent_path() ? file.parent_path() : fs::path(".");
    // Writers may also replace the file (write a new one, then rename).
    if (watch.get() >= 0 &&
        ::inotify_add_watch(watch.get(), dir.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
        throw std::runtime_error("inotify failed for " + dir.string());
    }
    // The user's inotify instances are few and shared by all its processes:
    // without one, look again every 20 ms.
    const int recheckMs = watch.get() < 0 ? 20 : -1;
    for (;;) {
        // Read after the watch is in place, so that no write goes unseen.
        if (readTextFile(file).find(text, offset) != std::string::npos) {
            return true;
        }
        pollfd fds[2] = {{watch.get(), POLLIN, 0}, {exitFd, POLLIN, 0}};
        const int left = remainingMs(deadline);
        const int n =
            ::poll(fds, exitFd >= 0 ? 2 : 1, recheckMs < 0 ? left : std::min(left, recheckMs));
        if (n == 0 && recheckMs > 0 && left > 0) {
            continue;
        }
        if (n == 0 || (n > 0 && (fds[1].revents & POLLIN) != 0)) {
            return false;
        }
        char events[4096];
        while (::read(watch.get(), events, sizeof events) > 0) {
        }
    }
}

BrokerProcess::~BrokerProcess() {
    stop(SIGTERM);
}

bool BrokerProcess::start(const fs::path& confFile, const fs::path& logFile,
                          const fs::path& outFile, const std::string& host, int port,
                          std::chrono::milliseconds limit) {
    if (running()) {
        throw std::logic_error("the broker is running already");
    }
    // Each start is judged by the log lines it adds.
    const std::size_t logOffset = readTextFile(logFile).size();
    const std::string conf = confFile.string();
    const std::string out = outFile.string();
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        if (!out.empty()) {
            const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            if (fd >= 0) {
                ::dup2(fd, 1);
                ::dup2(fd, 2);
            }
        }
        // The parent may block signals (a test runner, sigwait); the broker
        // must see SIGTERM.
        sigset_t none;
        sigemptyset(&none);
        ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
        ::execl(kMosquittoPath, kMosquittoPath, "-c", conf.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    pid_ = pid;
    pidFd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!pidFd_) {
        stop(SIGKILL);
        throw std::runtime_error("pidfd_open failed");
    }
    // mosquitto logs "running" once it listens.
    if (waitForFileText(logFile, " running", logOffset, limit, pidFd_.get()) &&
        acceptsTcp(host, port)) {
        return true;
    }
    pollfd exited{pidFd_.get(), POLLIN, 0};
    const bool gone = ::poll(&exited, 1, 0) == 1;
    stop(SIGKILL);
    if (gone) {
        return false;
    }
    throw std::runtime_error("mosquitto did not start listening on port " + std::to_string(port));
}

std::optional<int> BrokerProcess::stop(int sig, std::chrono::milliseconds limit) {
    if (!running()) {
        return std::nullopt;
    }
    ::kill(pid_, sig);
    pollfd fd{pidFd_.get(), POLLIN, 0};
    if (sig != SIGKILL && (!pidFd_ || ::poll(&fd, 1, static_cast<int>(limit.count())) == 0)) {
        ::kill(pid_, SIGKILL);
    }
    int raw = 0;
    ::waitpid(pid_, &raw, 0);
    pid_ = -1;
    pidFd_.reset();
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

}  // namespace ndpx::devcloud
