#include <platform/Paths.h>
#include <platform/SettingsStore.h>
#include <platform/SqliteDatabase.h>
#include <platform/UniqueFd.h>

#include <poll.h>
#include <sqlite3.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace ndpx::platform {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Writes come in bursts (WAL appends, checkpoints, -wal creation); one call
// per burst is enough for a reader that reloads what it cares about.
constexpr milliseconds kQuietPeriod(50);
// A steady stream of writes must still be reported now and then.
constexpr milliseconds kMaxDelay(250);
// A commit becomes visible only after its last WAL write, the last event we
// see of it; events without a commit follow checkpoints and readers closing
// the file. So the data version decides, and is looked at for a while after
// the events.
constexpr milliseconds kConfirmWindow(1000);
constexpr milliseconds kConfirmStep(25);
// Without inotify (the per-user limit reached) the data version is polled.
constexpr milliseconds kPollInterval(1000);

// The watch's own connection: PRAGMA data_version changes exactly when
// another connection committed.
class VersionProbe {
public:
    explicit VersionProbe(std::string file) : file_(std::move(file)) { version_ = read(); }

    // True when the store changed since the last call (or since it appeared).
    bool changed() {
        const bool hadDb = db_ != nullptr;
        const auto now = read();
        if (!now) {
            return false;
        }
        const bool result = !hadDb || !version_ || *now != *version_;
        version_ = now;
        return result;
    }

    // After the file was replaced the old connection would watch the old file.
    void reopen() {
        db_.reset();
        version_.reset();
    }

private:
    std::optional<std::int64_t> read() {
        if (!db_) {
            sqlite3* raw = nullptr;
            // No SQLITE_OPEN_CREATE: the store's owner creates the file with
            // its private mode.
            const int rc = sqlite3_open_v2(file_.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
            sqlite::DbPtr db(raw);
            if (rc != SQLITE_OK) {
                return std::nullopt;
            }
            sqlite3_busy_timeout(db.get(), 200);
            db_ = std::move(db);
        }
        const sqlite::StmtPtr stmt = sqlite::prepare(db_.get(), "PRAGMA data_version");
        if (stmt && sqlite3_step(stmt.get()) == SQLITE_ROW) {
            return sqlite3_column_int64(stmt.get(), 0);
        }
        return std::nullopt;
    }

    std::string file_;
    sqlite::DbPtr db_;
    std::optional<std::int64_t> version_;
};

// Watches with inotify when `inotifyFd` is valid; otherwise polls, and says
// why in pollingReason().
class InotifySettingsWatch final : public SettingsWatch {
public:
    InotifySettingsWatch(UniqueFd inotifyFd, UniqueFd stopFd, const std::filesystem::path& file,
                         std::function<void()> onChange, std::string pollingReason = {})
        : pollingReason_(std::move(pollingReason)),
          inotify_(std::move(inotifyFd)),
          stop_(std::move(stopFd)),
          dbName_(file.filename().string()),
          walName_(dbName_ + "-wal"),
          probe_(file.string()),
          onChange_(std::move(onChange)),
          thread_([this] { run(); }) {}

    ~InotifySettingsWatch() override {
        const std::uint64_t one = 1;
        // An 8-byte eventfd write only fails when the counter would overflow.
        [[maybe_unused]] const auto written = ::write(stop_.get(), &one, sizeof one);
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    InotifySettingsWatch(const InotifySettingsWatch&) = delete;
    InotifySettingsWatch& operator=(const InotifySettingsWatch&) = delete;

    std::string pollingReason() const override { return pollingReason_; }

private:
    enum class Seen { Nothing, Write, Replaced };

    // Reads all queued events and says what they mean for the database.
    Seen drainEvents() {
        Seen seen = Seen::Nothing;
        alignas(inotify_event) char buffer[4096];
        while (true) {
            const ssize_t n = ::read(inotify_.get(), buffer, sizeof buffer);
            if (n <= 0) {
                break;  // EAGAIN: drained
            }
            for (ssize_t off = 0; off < n;) {
                const auto* ev = reinterpret_cast<const inotify_event*>(buffer + off);
                off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                if ((ev->mask & IN_Q_OVERFLOW) != 0) {
                    seen = Seen::Replaced;  // events were lost: start afresh
                    continue;
                }
                const std::string_view name = ev->len > 0 ? ev->name : "";
                if (name == dbName_ && (ev->mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
                    seen = Seen::Replaced;
                } else if ((name == dbName_ || name == walName_) && seen == Seen::Nothing) {
                    seen = Seen::Write;
                }
            }
        }
        return seen;
    }

    // After events, the data version is checked once the burst has settled,
    // then again at growing intervals until kConfirmWindow has passed since
    // the last event: a commit whose events were drained together with an
    // earlier one may become visible only after that earlier one was reported.
    void run() {
        if (!inotify_.valid()) {
            poll();
            return;
        }
        bool active = false;           // events seen less than kConfirmWindow ago
        bool forced = false;           // report without asking the data version
        bool inBurst = false;          // events seen since the last check
        Clock::time_point burstStart;  // the first of them
        Clock::time_point last;        // latest event
        Clock::time_point nextCheck;   // when to look at the data version
        milliseconds step = kConfirmStep;
        while (true) {
            int timeoutMs = -1;
            if (active) {
                const auto wait = nextCheck - Clock::now();
                timeoutMs = wait > Clock::duration::zero()
                                ? static_cast<int>(std::chrono::ceil<milliseconds>(wait).count())
                                : 0;
            }
            pollfd fds[2] = {{stop_.get(), POLLIN, 0}, {inotify_.get(), POLLIN, 0}};
            if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
                return;
            }
            if ((fds[0].revents & POLLIN) != 0 ||
                (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                return;
            }
            const auto now = Clock::now();
            if ((fds[1].revents & POLLIN) != 0) {
                const Seen seen = drainEvents();
                if (seen != Seen::Nothing) {
                    if (!inBurst) {
                        inBurst = true;
                        burstStart = now;
                    }
                    active = true;
                    last = now;
                    step = kConfirmStep;
                    nextCheck = std::min(last + kQuietPeriod, burstStart + kMaxDelay);
                    if (seen == Seen::Replaced) {
                        forced = true;
                        probe_.reopen();
                    }
                }
            }
            if (!active || now < nextCheck) {
                continue;
            }
            inBurst = false;
            if (probe_.changed() || forced) {
                forced = false;
                notify();
            }
            if (now - last >= kConfirmWindow) {
                active = false;
            } else {
                nextCheck = now + step;
                step = std::min(step * 2, kConfirmWindow / 4);
            }
        }
    }

    // Ends at once when the watch is destroyed.
    void poll() {
        pollfd stop{stop_.get(), POLLIN, 0};
        while (true) {
            const int n = ::poll(&stop, 1, static_cast<int>(kPollInterval.count()));
            if (n > 0 || (n < 0 && errno != EINTR)) {
                return;
            }
            if (probe_.changed()) {
                notify();
            }
        }
    }

    void notify() {
        try {
            onChange_();
        } catch (...) {
            // A failing listener must not end the watch, nor the process.
        }
    }

    const std::string pollingReason_;
    UniqueFd inotify_;
    UniqueFd stop_;
    std::string dbName_;
    std::string walName_;
    VersionProbe probe_;
    std::function<void()> onChange_;
    std::thread thread_;  // last: starts once everything above is ready
};

}  // namespace

std::unique_ptr<SettingsWatch> watchSqliteSettingsStore(const std::string& file,
                                                        std::function<void()> onChange) {
    const std::filesystem::path path(file);
    if (!onChange || !path.has_filename() || file == ":memory:") {
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
    UniqueFd stopFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!stopFd.valid()) {
        return nullptr;
    }
    // Out of instances or watches (per-user limits) or descriptors: poll.
    const auto exhausted = [](int e) {
        return e == EMFILE || e == ENFILE || e == ENOMEM || e == ENOSPC;
    };
    UniqueFd inotifyFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    std::string pollingReason;
    if (!inotifyFd.valid()) {
        const int cause = errno;
        if (!exhausted(cause)) {
            return nullptr;
        }
        pollingReason = "no inotify instance: " + std::generic_category().message(cause);
    } else if (::inotify_add_watch(inotifyFd.get(), dir.c_str(),
                                   IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE) < 0) {
        const int cause = errno;
        if (!exhausted(cause)) {
            return nullptr;
        }
        pollingReason = "no inotify watch: " + std::generic_category().message(cause);
        inotifyFd.reset();
    }
    return std::make_unique<InotifySettingsWatch>(std::move(inotifyFd), std::move(stopFd), path,
                                                  std::move(onChange), std::move(pollingReason));
}

}  // namespace ndpx::platform
