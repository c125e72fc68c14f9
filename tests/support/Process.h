#pragma once
// A child process for end-to-end tests: its stdout and stderr are collected
// line by line so a test can wait for a line with a bounded time-out.

#include <platform/UniqueFd.h>

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ndpx::test {

class Process {
public:
    explicit Process(std::vector<std::string> argv);
    ~Process();  // kills (SIGKILL) and reaps a child still running
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    bool waitForLine(const std::string& text,
                     std::chrono::milliseconds limit = std::chrono::seconds(20));
    std::size_t countLines(const std::string& text) const;
    // What follows "`key` " on the first output line that starts with it
    // (tools print "port 1883", "url https://..."); empty when none does.
    std::string valueAfter(const std::string& key) const;
    std::string output() const;
    // Waits until the child's output is closed (it exited) and all is read.
    bool drain(std::chrono::milliseconds limit = std::chrono::seconds(20));

    void signal(int sig);
    // Exit status (or 128 + signal), nullopt if still running after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit = std::chrono::seconds(20));

private:
    void readLoop(int fd);

    pid_t pid_ = -1;
    platform::UniqueFd readFd_;
    std::thread reader_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> lines_;
    std::string partial_;
    bool eof_ = false;
    std::optional<int> status_;
};

// Runs a command to completion; returns its exit status and output.
struct RunResult {
    int status;
    std::string output;
};
RunResult run(const std::vector<std::string>& argv);

}  // namespace ndpx::test
