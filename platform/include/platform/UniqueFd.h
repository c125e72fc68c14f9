#pragma once
// Owns one operating-system descriptor (file, socket, pipe, event, watch)
// and closes it when the owner goes. The one owner of raw descriptors in the
// project: everything that opens one hands it to a UniqueFd at once.

#include <utility>

namespace ndpx::platform {

class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    explicit operator bool() const noexcept { return valid(); }
    // Gives the descriptor up without closing it.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    // Closes the descriptor held, if any, and takes `fd` instead.
    void reset(int fd = -1) noexcept;

private:
    int fd_ = -1;
};

}  // namespace ndpx::platform
