#include <platform/Paths.h>
#include <platform/SettingsStore.h>
#include <platform/SqliteDatabase.h>
#include <platform/Threads.h>
#include <platform/UniqueFd.h>

#include "InotifyHub.h"

#include <poll.h>
#include <sqlite3.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
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

// What the directory's events meant for the database since the watch's
// thread last looked; filled on the inotify hub's thread.
class Inbox {
public:
    enum Seen { Nothing, Write, Replaced };

    explicit Inbox(const std::filesystem::path& file)
        : wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          dbName_(file.filename().string()),
          walName_(dbName_ + "-wal") {}

    void take(const inotify::Event& event) {
        Seen now = Nothing;
        // Lost events (an overflow) count as a new file: start afresh.
        if ((event.mask & IN_Q_OVERFLOW) != 0 ||
            (event.name == dbName_ && (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0)) {
            now = Replaced;
        } else if (event.name == dbName_ || event.name == walName_) {
            now = Write;
        } else {
            return;
        }
        int before = seen_.load();
        while (before < now && !seen_.compare_exchange_weak(before, now)) {
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(wake.get(), &one, sizeof one);
    }

    Seen drain() {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto n = ::read(wake.get(), &count, sizeof count);
        return static_cast<Seen>(seen_.exchange(Nothing));
    }

    const UniqueFd wake;

private:
    const std::string dbName_;
    const std::string walName_;
    std::atomic<int> seen_{Nothing};
};

// Follows the store through the process's inotify hub when `inbox` is given;
// otherwise polls, and says why in pollingReason().
class InotifySettingsWatch final : public SettingsWatch {
public:
    InotifySettingsWatch(std::unique_ptr<Inbox> inbox,
                         std::unique_ptr<inotify::DirectoryWatch> directory, UniqueFd stopFd,
                         const std::filesystem::path& file, std::function<void()> onChange,
                         std::string pollingReason)
        : pollingReason_(std::move(pollingReason)),
          inbox_(std::move(inbox)),
          directory_(std::move(directory)),
          stop_(std::move(stopFd)),
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
    using Seen = Inbox::Seen;

    // After events, the data version is checked once the burst has settled,
    // then again at growing intervals until kConfirmWindow has passed since
    // the last event: a commit whose events were drained together with an
    // earlier one may become visible only after that earlier one was reported.
    void run() {
        // Named for itself, not after the thread that opened the store.
        setCurrentThreadOsName("SettingsWatch");
        if (!inbox_) {
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
            pollfd fds[2] = {{stop_.get(), POLLIN, 0}, {inbox_->wake.get(), POLLIN, 0}};
            if (::poll(fds, 2, timeoutMs) < 0 && errno != EINTR) {
                return;
            }
            if ((fds[0].revents & POLLIN) != 0 ||
                (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                return;
            }
            const auto now = Clock::now();
            if ((fds[1].revents & POLLIN) != 0) {
                const Seen seen = inbox_->drain();
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
    // The directory watch goes first, so no event arrives in a gone inbox.
    const std::unique_ptr<Inbox> inbox_;
    const std::unique_ptr<inotify::DirectoryWatch> directory_;
    UniqueFd stop_;
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
    auto inbox = std::make_unique<Inbox>(path);
    if (!stopFd.valid() || !inbox->wake.valid()) {
        return nullptr;
    }
    inotify::WatchError failure;
    auto directory = inotify::watchDirectory(
        dir, IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE,
        [raw = inbox.get()](const inotify::Event& event) { raw->take(event); }, failure);
    std::string pollingReason;
    if (!directory) {
        if (!inotify::exhausted(failure.error)) {
            return nullptr;
        }
        pollingReason = (failure.instance ? "no inotify instance: " : "no inotify watch: ") +
                        std::generic_category().message(failure.error);
        inbox.reset();
    }
    return std::make_unique<InotifySettingsWatch>(std::move(inbox), std::move(directory),
                                                  std::move(stopFd), path, std::move(onChange),
                                                  std::move(pollingReason));
}

}  // namespace ndpx::platform
