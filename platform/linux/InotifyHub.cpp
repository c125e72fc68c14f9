#include "InotifyHub.h"

#include <platform/Threads.h>
#include <platform/UniqueFd.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace ndpx::platform::inotify {

class Hub {
public:
    Hub(UniqueFd inotifyFd, UniqueFd stopFd)
        : fd_(std::move(inotifyFd)), stop_(std::move(stopFd)), thread_([this] { run(); }) {}

    ~Hub() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(stop_.get(), &one, sizeof one);
        thread_.join();
    }
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // The hub of the process; a new one when none is alive.
    static std::shared_ptr<Hub> shared(int& error) {
        static std::mutex mutex;
        static std::weak_ptr<Hub> current;
        std::lock_guard lock(mutex);
        if (auto hub = current.lock()) {
            return hub;
        }
        UniqueFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!fd) {
            error = errno;
            return nullptr;
        }
        UniqueFd stop(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        if (!stop) {
            error = errno;
            return nullptr;
        }
        auto hub = std::make_shared<Hub>(std::move(fd), std::move(stop));
        current = hub;
        return hub;
    }

    bool add(const std::filesystem::path& dir, std::uint32_t mask, Handler handler,
             std::uint64_t& id, int& error) {
        std::lock_guard lock(mutex_);
        // A directory watched twice has one descriptor: widen its mask.
        const int wd = ::inotify_add_watch(fd_.get(), dir.c_str(), mask | IN_MASK_ADD);
        if (wd < 0) {
            error = errno;
            return false;
        }
        id = ++lastId_;
        entries_.push_back({id, wd, mask, std::make_shared<Handler>(std::move(handler))});
        return true;
    }

    void remove(std::uint64_t id) {
        std::unique_lock lock(mutex_);
        const auto it = std::find_if(entries_.begin(), entries_.end(),
                                     [id](const Entry& e) { return e.id == id; });
        if (it == entries_.end()) {
            return;
        }
        const int wd = it->wd;
        entries_.erase(it);
        if (std::none_of(entries_.begin(), entries_.end(),
                         [wd](const Entry& e) { return e.wd == wd; })) {
            ::inotify_rm_watch(fd_.get(), wd);
        }
        idle_.wait(lock, [&] { return running_ != id; });
    }

private:
    struct Entry {
        std::uint64_t id;
        int wd;
        std::uint32_t mask;
        std::shared_ptr<Handler> handler;
    };

    void run() {
        // Named for itself, not after whichever thread first waited on a file.
        setCurrentThreadOsName("Inotify");
        alignas(inotify_event) char buffer[4096];
        while (true) {
            pollfd fds[2] = {{stop_.get(), POLLIN, 0}, {fd_.get(), POLLIN, 0}};
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return;
            }
            if ((fds[0].revents & POLLIN) != 0 ||
                (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
                return;
            }
            // Events come in bursts (SQLite opening a database in a watched
            // folder extends its shared-memory file a page at a time, one event
            // each): gather the burst and take it in one wake-up, not one each.
            pollfd stop{stop_.get(), POLLIN, 0};
            if (::poll(&stop, 1, kGatherMs) > 0) {
                return;
            }
            ssize_t n = 0;
            while ((n = ::read(fd_.get(), buffer, sizeof buffer)) > 0) {
                for (ssize_t off = 0; off < n;) {
                    const auto* ev = reinterpret_cast<const inotify_event*>(buffer + off);
                    off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
                    dispatch(ev->wd,
                             {ev->mask, ev->len > 0 ? std::string(ev->name) : std::string()});
                }
            }
        }
    }

    static constexpr int kGatherMs = 20;

    // Each handler is called with no lock held; remove() waits while its
    // handler runs.
    void dispatch(int wd, const Event& event) {
        const std::uint32_t always = IN_IGNORED | IN_Q_OVERFLOW;
        std::vector<std::pair<std::uint64_t, std::shared_ptr<Handler>>> targets;
        {
            std::lock_guard lock(mutex_);
            for (const auto& e : entries_) {
                const bool mine = e.wd == wd || (event.mask & IN_Q_OVERFLOW) != 0;
                if (mine && (event.mask & (e.mask | always)) != 0) {
                    targets.emplace_back(e.id, e.handler);
                }
            }
        }
        for (const auto& [id, handler] : targets) {
            {
                std::lock_guard lock(mutex_);
                if (std::none_of(entries_.begin(), entries_.end(),
                                 [id = id](const Entry& e) { return e.id == id; })) {
                    continue;  // removed meanwhile
                }
                running_ = id;
            }
            try {
                (*handler)(event);
            } catch (...) {
                // A failing handler must not end the other watches.
            }
            {
                std::lock_guard lock(mutex_);
                running_ = 0;
            }
            idle_.notify_all();
        }
    }

    UniqueFd fd_;
    UniqueFd stop_;
    std::mutex mutex_;
    std::condition_variable idle_;
    std::vector<Entry> entries_;
    std::uint64_t lastId_ = 0;
    std::uint64_t running_ = 0;  // the id whose handler runs, 0: none
    std::thread thread_;         // last: starts once everything above is ready
};

DirectoryWatch::DirectoryWatch(std::shared_ptr<Hub> hub, std::uint64_t id)
    : hub_(std::move(hub)), id_(id) {}

DirectoryWatch::~DirectoryWatch() {
    hub_->remove(id_);
}

std::unique_ptr<DirectoryWatch> watchDirectory(const std::filesystem::path& dir, std::uint32_t mask,
                                               Handler handler, WatchError& failure) {
    int error = 0;
    auto hub = Hub::shared(error);
    if (!hub) {
        failure = {error, true};
        return nullptr;
    }
    std::uint64_t id = 0;
    if (!hub->add(dir, mask, std::move(handler), id, error)) {
        failure = {error, false};
        return nullptr;
    }
    return std::make_unique<DirectoryWatch>(std::move(hub), id);
}

bool exhausted(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOSPC;
}

}  // namespace ndpx::platform::inotify
