#include <platform/FileCreationWaiter.h>

#include "InotifyHub.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

namespace ndpx::platform {

namespace {

void post(const UniqueFd& event) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(event.get(), &one, sizeof one);
}

void drain(const UniqueFd& event) {
    std::uint64_t value = 0;
    [[maybe_unused]] const auto n = ::read(event.get(), &value, sizeof value);
}

}  // namespace

FileCreationWaiter::FileCreationWaiter()
    : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      changed_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FileCreationWaiter::~FileCreationWaiter() = default;

void FileCreationWaiter::interrupt() {
    post(event_);
}

void FileCreationWaiter::reset() {
    drain(event_);
}

FileCreationWaiter::Result FileCreationWaiter::wait(
    const std::filesystem::path& file, std::string& error, int& failedStep,
    const std::function<void(const std::string& reason)>& onPolling) {
    if (!event_ || !changed_) {
        failedStep = 2;
        error = "no event descriptor";
        return Result::Failed;
    }
    drain(changed_);  // left from an earlier wait
    std::atomic<bool> gone{false};
    inotify::WatchError failure;
    // The process's one inotify instance (the settings watch has it already).
    const auto watch = inotify::watchDirectory(
        file.parent_path(), IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF,
        [&](const inotify::Event& event) {
            gone = gone || (event.mask & (IN_DELETE_SELF | IN_IGNORED)) != 0;
            post(changed_);
        },
        failure);
    if (!watch) {
        const std::string why = std::generic_category().message(failure.error);
        if (inotify::exhausted(failure.error)) {
            if (onPolling) {
                onPolling((failure.instance ? "no inotify instance: " : "no inotify watch: ") +
                          why);
            }
            return poll(file, error, failedStep);
        }
        failedStep = failure.instance ? 2 : 1;
        error = why;
        return Result::Failed;
    }
    // Checked after the watch is in place, so a file made in between is not missed.
    std::error_code ec;
    if (std::filesystem::exists(file, ec)) {
        return Result::Created;
    }
    for (;;) {
        pollfd fds[2] = {{changed_.get(), POLLIN, 0}, {event_.get(), POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            failedStep = 3;
            error = std::generic_category().message(errno);
            return Result::Failed;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return Result::Interrupted;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            drain(changed_);
            if (std::filesystem::exists(file, ec)) {
                return Result::Created;
            }
            if (gone) {
                failedStep = 3;
                error = "directory removed";
                return Result::Failed;
            }
        }
    }
}

FileCreationWaiter::Result FileCreationWaiter::poll(const std::filesystem::path& file,
                                                    std::string& error, int& failedStep) {
    for (;;) {
        std::error_code ec;
        if (std::filesystem::exists(file, ec)) {
            return Result::Created;
        }
        pollfd fd{event_.get(), POLLIN, 0};
        const int n = ::poll(&fd, 1, static_cast<int>(kPollInterval.count()));
        if (n > 0 && (fd.revents & POLLIN) != 0) {
            return Result::Interrupted;
        }
        if (n < 0 && errno != EINTR) {
            failedStep = 3;
            error = std::generic_category().message(errno);
            return Result::Failed;
        }
    }
}

}  // namespace ndpx::platform
