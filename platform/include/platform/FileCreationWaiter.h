#pragma once
// Waits until a file appears in a directory, on change notifications (it
// polls only when the system has none left to give); another thread can
// interrupt the wait at any time (e.g. when the agent stops).

#include <platform/UniqueFd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace ndpx::platform {

class FileCreationWaiter {
public:
    enum class Result { Created, Interrupted, Failed };

    FileCreationWaiter();
    ~FileCreationWaiter();
    FileCreationWaiter(const FileCreationWaiter&) = delete;
    FileCreationWaiter& operator=(const FileCreationWaiter&) = delete;

    // Returns Created once `file` exists (at once if it already does),
    // Interrupted after interrupt(), Failed with `error` when the directory
    // cannot be watched (`failedStep`: 1 directory, 2 event, 3 monitoring).
    // When the system has no change notification left to give (a per-user
    // limit), it calls `onPolling` once with the reason and looks for the
    // file every kPollInterval instead; interrupt() still ends that at once.
    Result wait(const std::filesystem::path& file, std::string& error, int& failedStep,
                const std::function<void(const std::string& reason)>& onPolling = {});

    static constexpr std::chrono::milliseconds kPollInterval{500};

    // Ends a current or the next wait; stays in force until reset().
    void interrupt();
    void reset();

private:
    Result poll(const std::filesystem::path& file, std::string& error, int& failedStep);

    UniqueFd event_;    // interrupt()
    UniqueFd changed_;  // the directory changed
};

}  // namespace ndpx::platform
