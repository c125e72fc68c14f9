#pragma once
// A private file that grows only at its end, one whole record per append,
// read back by offset. Each append is one system write: once it returns, the
// bytes outlive a kill of the process (not a power loss; sync() for that).

#include <platform/UniqueFd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace ndpx::platform {

class AppendFile {
public:
    // Opens `path`, creating it with mode 0600; nullptr and `error` on failure.
    static std::unique_ptr<AppendFile> open(const std::filesystem::path& path, std::string& error);

    std::uint64_t size() const { return size_; }
    // Writes `parts` back to back at the end. On failure the file is cut back
    // to its size before the call, so no partial record stays behind.
    bool append(std::span<const std::string_view> parts, std::string& error);
    // Reads `length` bytes at `offset` into `out`.
    bool readAt(std::uint64_t offset, std::size_t length, std::string& out,
                std::string& error) const;
    // Cuts the file to `length` bytes.
    bool truncate(std::uint64_t length, std::string& error);
    // Flushes the content to the disk.
    bool sync(std::string& error);

private:
    AppendFile(UniqueFd fd, std::uint64_t size) : fd_(std::move(fd)), size_(size) {}
    UniqueFd fd_;
    std::uint64_t size_;
};

// Moves `from` over `to` in one step, flushing the folder so the move itself
// survives a power loss.
bool replaceFile(const std::filesystem::path& from, const std::filesystem::path& to,
                 std::string& error);

}  // namespace ndpx::platform
