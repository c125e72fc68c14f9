#include "support/Process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace ndpx::test {

Process::Process(std::vector<std::string> argv) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    readFd_.reset(fds[0]);
    platform::UniqueFd writeEnd(fds[1]);
    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        // Its own process group, so that whatever it starts can be ended with it.
        ::setpgid(0, 0);
        ::dup2(writeEnd.get(), 1);
        ::dup2(writeEnd.get(), 2);
        // The test runner may block signals; the child must see SIGTERM.
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        std::vector<char*> args;
        for (auto& a : argv) {
            args.push_back(a.data());
        }
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    writeEnd.reset();
    reader_ = std::thread([this] { readLoop(readFd_.get()); });
}

Process::~Process() {
    if (!status_) {
        ::kill(pid_, SIGKILL);
        wait(std::chrono::seconds(10));
    }
    // Children of the child (a broker it started) would keep the output
    // pipe open; they go with the group.
    ::kill(-pid_, SIGKILL);
    if (reader_.joinable()) {
        reader_.join();
    }
}

void Process::readLoop(int fd) {
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) {
            break;
        }
        std::lock_guard lock(mutex_);
        partial_.append(buf, static_cast<std::size_t>(n));
        std::size_t nl;
        while ((nl = partial_.find('\n')) != std::string::npos) {
            lines_.push_back(partial_.substr(0, nl));
            partial_.erase(0, nl + 1);
        }
        cv_.notify_all();
    }
    std::lock_guard lock(mutex_);
    if (!partial_.empty()) {
        lines_.push_back(partial_);
    }
    eof_ = true;
    cv_.notify_all();
}

bool Process::waitForLine(const std::string& text, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    std::size_t checked = 0;
    return cv_.wait_for(lock, limit, [&] {
        for (; checked < lines_.size(); ++checked) {
            if (lines_[checked].find(text) != std::string::npos) {
                return true;
            }
        }
        return eof_;
    }) && checked < lines_.size();
}

std::size_t Process::countLines(const std::string& text) const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& l : lines_) {
        n += l.find(text) != std::string::npos ? 1 : 0;
    }
    return n;
}

std::string Process::valueAfter(const std::string& key) const {
    std::lock_guard lock(mutex_);
    for (const auto& l : lines_) {
        if (l.rfind(key + " ", 0) == 0) {
            return l.substr(key.size() + 1);
        }
    }
    return {};
}

std::string Process::output() const {
    std::lock_guard lock(mutex_);
    std::string out;
    for (const auto& l : lines_) {
        out += l + "\n";
    }
    return out + partial_;
}

bool Process::drain(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return eof_; });
}

void Process::signal(int sig) {
    if (!status_) {
        ::kill(pid_, sig);
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds limit) {
    if (status_) {
        return status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int raw = 0;
        const pid_t r = ::waitpid(pid_, &raw, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            return status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        // Child exit has no waitable fd here; a short poll bounded by `limit`.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

RunResult run(const std::vector<std::string>& argv) {
    Process p(argv);
    const auto status = p.wait(std::chrono::seconds(60));
    p.drain();
    return {status.value_or(-1), p.output()};
}

}  // namespace ndpx::test
