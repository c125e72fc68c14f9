#pragma once
// The IDs of the commands this desktop answered, kept on disk for as long as
// the duplicate filter remembers an ID. The client library acknowledges a
// command when it is handed over, and that acknowledgement can trail the
// answer; a SIGKILL in between makes the broker deliver the command again to
// the next process, whose filter would start empty and run it a second time.
// Read back at start, these IDs let that process drop it: its answer is
// already out, or in the library's persistence and sent again on reconnect.

#include <platform/TimeSource.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace ndpx {

class AnsweredCommandLog {
public:
    AnsweredCommandLog(std::int64_t retentionSeconds, platform::TimeSource& time)
        : retentionSeconds_(retentionSeconds), time_(time) {}

    // Opens the log at `file` and returns the IDs answered within the
    // retention; the file is rewritten with only those.
    std::vector<std::wstring> open(const std::filesystem::path& file);
    // Appends one answered ID. Written through to the system at once, so a
    // SIGKILL of the process loses none; a power loss may lose the last ones.
    void record(const std::wstring& id);

private:
    struct Entry {
        std::int64_t unixSeconds;
        std::string idHex;
    };
    void appendLocked(const Entry& entry);
    void rewriteLocked();

    const std::int64_t retentionSeconds_;
    platform::TimeSource& time_;
    std::mutex mutex_;
    std::filesystem::path file_;
    std::ofstream out_;
    std::vector<Entry> live_;  // in answer order
    std::size_t lines_ = 0;    // in the file
};

}  // namespace ndpx
