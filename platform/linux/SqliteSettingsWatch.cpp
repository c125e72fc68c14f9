#include <platform/Paths.h>
#include <platform/SettingsStore.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <thread>
#include <utility>

namespace ndpx::platform {

namespace {

// Writes come in bursts (WAL append, checkpoint, -wal creation); one call
// per burst is enough for a reader that reloads everything it cares about.
constexpr std::chrono::milliseconds kQuietPeriod(50);
// A steady stream of writes must still be reported now and then.
constexpr std::chrono::milliseconds kMaxDelay(250);

class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

class InotifySettingsWatch final : public SettingsWatch {
  public:
    InotifySettingsWatch(Fd&& inotifyFd, Fd&& stopFd, std::string dbName,
                         std::function<void()> onChange)
        : inotify_(inotifyFd.release()),
          stop_(stopFd.release()),
          dbName_(std::move(dbName)),
          walName_(dbName_ + "-wal"),
          onChange_(std::move(onChange)),
          thread_([this] { run(); }) {}

    ~InotifySettingsWatch() override {
        const std::uint64_t one = 1;
        // eventfd writes of 8 bytes do not fail short of a counter overflow.
        [[maybe_unused]] const auto written = ::write(stop_.get(), &one, sizeof one);
        if (thread_.joinable()) {
            thread_.join();
        }
    }

  private:
    enum class Wake { Stop, Change, Nothing, Timeout };

    // Waits for the stop signal or inotify events, at most `timeoutMs`
    // (-1 = without limit), and drains the events that arrived.
    Wake waitOnce(int timeoutMs) {
        pollfd fds[2] = {{stop_.get(), POLLIN, 0}, {inotify_.get(), POLLIN, 0}};
        const int rc = ::poll(fds, 2, timeoutMs);
        if (rc < 0) {
            return errno == EINTR ? Wake::Nothing : Wake::Stop;
        }
        if (rc == 0) {
            return Wake::Timeout;
        }
        if ((fds[0].revents & POLLIN) != 0) {
            return Wake::Stop;
        }
        if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            return Wake::Stop;
        }
        return drainEvents() ? Wake::Change : Wake::Nothing;
    }

    // Reads all queued events; true when one concerns the database.
    bool drainEvents() {
        bool relevant = false;
        alignas(inotify_event) char buffer[4096];
        while (true) {
            const ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
            if (n <= 0) {
                break;  // EAGAIN: drained
            }
            for (ssize_t off = 0; off < n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(buffer + off);
                if ((ev->mask & IN_Q_OVERFLOW) != 0) {
                    relevant = true;  // events were lost; assume the worst
                } else if (ev->len > 0) {
                    const std::string_view name(ev->name);
                    if (name == dbName_ || name == walName_) {
                        relevant = true;
                    }
                }
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
            }
        }
        return relevant;
    }

    void run() {
        using Clock = std::chrono::steady_clock;
        while (true) {
            Wake w = waitOnce(-1);
            if (w == Wake::Stop) {
                return;
            }
            if (w != Wake::Change) {
                continue;
            }
            // Coalesce the rest of the burst.
            const auto first = Clock::now();
            while (true) {
                const auto left = kMaxDelay - std::chrono::duration_cast<std::chrono::milliseconds>(
                                                  Clock::now() - first);
                if (left <= std::chrono::milliseconds::zero()) {
                    break;
                }
                w = waitOnce(static_cast<int>(std::min(left, kQuietPeriod).count()));
                if (w == Wake::Stop) {
                    return;
                }
                if (w == Wake::Timeout) {
                    break;
                }
            }
            try {
                onChange_();
            } catch (...) {
                // A failing listener must not end the watch (nor the process).
            }
        }
    }

    Fd inotify_;
    Fd stop_;
    std::string dbName_;
    std::string walName_;
    std::function<void()> onChange_;
    std::thread thread_;  // last: starts once everything above is ready
};

}  // namespace

std::unique_ptr<SettingsWatch> watchSqliteSettingsStore(const std::string& file,
                                                        std::function<void()> onChange) {
    const std::filesystem::path path(file);
    if (!onChange || !path.has_filename()) {
        return nullptr;
    }
    std::filesystem::path dir = path.parent_path();
    if (dir.empty()) {
        dir = ".";
    }
    std::string error;
    if (!paths::createSecureDirectories(dir, error)) {
        return nullptr;
    }
    Fd inotifyFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    Fd stopFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!inotifyFd.valid() || !stopFd.valid()) {
        return nullptr;
    }
    if (::inotify_add_watch(inotifyFd.get(), dir.c_str(),
                            IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE) < 0) {
        return nullptr;
    }
    return std::make_unique<InotifySettingsWatch>(std::move(inotifyFd), std::move(stopFd),
                                                  path.filename().string(), std::move(onChange));
}

}  // namespace ndpx::platform
