#pragma once
// A responder the round-trip bench starts itself (bench/mqtt_floor): spawned
// from an absolute path, its output read until it says "ready", and stopped
// with SIGTERM (SIGKILL after a bounded wait) when its owner goes.

#include <platform/UniqueFd.h>

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace ndpx::bench {

class ChildProcess {
public:
    // Starts argv[0] (an absolute path) with `argv`; throws when it cannot,
    // or when it exits or stays silent for `limit` before printing "ready".
    ChildProcess(const std::vector<std::string>& argv, std::chrono::milliseconds limit);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }

private:
    void stop();

    pid_t pid_ = -1;
    platform::UniqueFd pidFd_;
    platform::UniqueFd output_;
};

// The folder of this executable, for starting the programs built beside it.
std::string ownFolder();

}  // namespace ndpx::bench
