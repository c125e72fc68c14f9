#pragma once
// Waits, without polling, until a file appears in a directory; another thread
// can interrupt the wait at any time (e.g. when the agent stops).

#include <platform/UniqueFd.h>

#include <filesystem>
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
    Result wait(const std::filesystem::path& file, std::string& error, int& failedStep);

    // Ends a current or the next wait; stays in force until reset().
    void interrupt();
    void reset();

private:
    UniqueFd event_;
};

}  // namespace ndpx::platform
