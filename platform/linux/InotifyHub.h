#pragma once
// One inotify instance for the whole process, shared by its directory
// watches. fs.inotify.max_user_instances (128 by default) counts instances
// per user, and an agent waiting for its provisioning file also watches its
// settings store: with one instance each, twice as many agents fit.
//
// The hub's thread reads the events and hands each to the handlers of its
// directory. It starts with the first watch and is stopped and joined when
// the last one goes.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace ndpx::platform::inotify {

struct Event {
    std::uint32_t mask;  // IN_Q_OVERFLOW (to every handler): events were lost
    std::string name;    // the entry in the directory, if any
};
// Runs on the hub's thread: it must return soon and must not destroy a watch.
using Handler = std::function<void(const Event&)>;

class Hub;

class DirectoryWatch {
public:
    DirectoryWatch(std::shared_ptr<Hub> hub, std::uint64_t id);
    // Once it returns, its handler is not running and is never called again.
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

private:
    std::shared_ptr<Hub> hub_;
    std::uint64_t id_;
};

struct WatchError {
    int error = 0;          // errno
    bool instance = false;  // no instance could be had (else the watch failed)
};

// Watches `dir` for the events in `mask`; nullptr and `failure` when no
// instance or watch could be had.
std::unique_ptr<DirectoryWatch> watchDirectory(const std::filesystem::path& dir, std::uint32_t mask,
                                               Handler handler, WatchError& failure);

// Out of instances or watches (per-user limits), or of descriptors: a caller
// can only poll.
bool exhausted(int error);

}  // namespace ndpx::platform::inotify
