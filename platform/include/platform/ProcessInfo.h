#pragma once
// What the system says about another process: its executable and when it
// started. The start time tells a process from a later one that was given
// the same process ID.

#include <cstdint>
#include <optional>
#include <string>

namespace ndpx::platform {

struct ProcessIdentity {
    std::string executable;       // full path of the running image
    std::uint64_t startTime = 0;  // in the system's own units, for comparison only
    std::uint32_t uid = 0;        // the real user ID
};

// Nothing, with why in `error`, when the process is gone or may not be
// inspected (another user's process needs the ptrace-read capability).
std::optional<ProcessIdentity> processIdentity(std::int32_t pid, std::string& error);

// The file name of `path` without its folders.
std::string baseName(const std::string& path);

}  // namespace ndpx::platform
