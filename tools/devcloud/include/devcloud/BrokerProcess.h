#pragma once
// A mosquitto child process: started with a configuration file, judged
// ready by its log file (mosquitto buffers its standard output when that is
// not a terminal), stopped and reaped by its owner.

#include <platform/UniqueFd.h>

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace ndpx::devcloud {

class BrokerProcess {
public:
    BrokerProcess() = default;
    ~BrokerProcess();  // SIGTERM, then SIGKILL if need be, and reap
    BrokerProcess(const BrokerProcess&) = delete;
    BrokerProcess& operator=(const BrokerProcess&) = delete;

    // Starts `mosquitto -c confFile` with its standard output and error
    // appended to `outFile` (empty: inherited), and waits until `logFile`
    // says it runs and `host`:`port` accepts connections. False when it
    // exited before (e.g. the port was taken); throws after `limit`.
    bool start(const std::filesystem::path& confFile, const std::filesystem::path& logFile,
               const std::filesystem::path& outFile, const std::string& host, int port,
               std::chrono::milliseconds limit);

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // Readable once the broker has exited (for poll), -1 when not running.
    int exitFd() const { return pidFd_.get(); }

    // Sends `sig` and reaps the broker, with SIGKILL after `limit`. Returns
    // the exit status (128 + signal when killed); nullopt when not running.
    std::optional<int> stop(int sig, std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    pid_t pid_ = -1;
    platform::UniqueFd pidFd_;
};

// Waits until `file` holds `text` at or after byte `offset`, watching the
// file's directory for writes. False after `limit`, or when `exitFd` (if
// not -1) becomes readable first.
bool waitForFileText(const std::filesystem::path& file, const std::string& text, std::size_t offset,
                     std::chrono::milliseconds limit, int exitFd = -1);

// The file's text, empty when it cannot be read.
std::string readTextFile(const std::filesystem::path& file);

}  // namespace ndpx::devcloud
