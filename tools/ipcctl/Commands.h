#pragma once
// ipcctl's commands. Each connects to the bridge and first waits for its
// bootstrap: the bridge closes a connection it refuses at once, so a close
// before the bootstrap is reported as a refusal (is ipcctl include-listed?).
// They return the exit code: 0 done, 1 failed, 2 bad usage.

#include <chrono>
#include <filesystem>
#include <string>

namespace ndpx::ipcctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

struct Session {
    std::filesystem::path socket;
    // How long to wait for the bootstrap. Without one in time, publish and
    // subscribe go on (with a note on stderr); identity fails.
    std::chrono::milliseconds bootstrapWait{5000};
    // Readable when the command is to end (SIGINT or SIGTERM pending).
    int stopHandle = -1;
};

// Prints "TOPIC PAYLOAD" per message until stopped (exit 0) or the bridge
// closes (exit 1). `topics` is "a/b,c/d".
int runSubscribe(const Session& session, const std::string& topics);
int runPublish(const Session& session, const std::string& topic, const std::string& message,
               int qos, bool retain);
// Prints the bootstrap's four fields, "name: value" per line.
int runIdentity(const Session& session);

}  // namespace ndpx::ipcctl
