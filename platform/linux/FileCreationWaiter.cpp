#include <platform/FileCreationWaiter.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace ndpx::platform {

FileCreationWaiter::FileCreationWaiter() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FileCreationWaiter::~FileCreationWaiter() = default;

void FileCreationWaiter::interrupt() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(event_.get(), &one, sizeof one);
}

void FileCreationWaiter::reset() {
    std::uint64_t value = 0;
    [[maybe_unused]] const auto n = ::read(event_.get(), &value, sizeof value);
}

namespace {

// Out of instances or watches (fs.inotify.max_user_instances and
// max_user_watches count per user), or of descriptors: only polling is left.
bool exhausted(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOSPC;
}

}  // namespace

FileCreationWaiter::Result FileCreationWaiter::wait(
    const std::filesystem::path& file, std::string& error, int& failedStep,
    const std::function<void(const std::string& reason)>& onPolling) {
    if (!event_) {
        failedStep = 2;
        error = "no event descriptor";
        return Result::Failed;
    }
    const auto fallBack = [&](const char* what, int cause) {
        if (onPolling) {
            onPolling(std::string(what) + ": " + std::generic_category().message(cause));
        }
        return poll(file, error, failedStep);
    };
    const UniqueFd notify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!notify) {
        if (const int cause = errno; exhausted(cause)) {
            return fallBack("no inotify instance", cause);
        }
        failedStep = 2;
        error = std::generic_category().message(errno);
        return Result::Failed;
    }
    const auto dir = file.parent_path();
    if (::inotify_add_watch(notify.get(), dir.c_str(),
                            IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF) < 0) {
        if (const int cause = errno; exhausted(cause)) {
            return fallBack("no inotify watch", cause);
        }
        failedStep = 1;
        error = std::generic_category().message(errno);
        return Result::Failed;
    }
    // Checked after the watch is in place, so a file made in between is not missed.
    std::error_code ec;
    if (std::filesystem::exists(file, ec)) {
        return Result::Created;
    }
    for (;;) {
        pollfd fds[2] = {{notify.get(), POLLIN, 0}, {event_.get(), POLLIN, 0}};
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
            alignas(inotify_event) char buf[4096];
            bool gone = false;
            for (;;) {
                const ssize_t len = ::read(notify.get(), buf, sizeof buf);
                if (len <= 0) {
                    break;
                }
                for (ssize_t off = 0; off < len;) {
                    const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
                    gone = gone || (ev->mask & (IN_DELETE_SELF | IN_IGNORED)) != 0;
                    off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                }
            }
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
