// CurlHttpRequest's cancel and its completion threads.

#include "net/linux/CurlHttpRequest.h"

#include <mfw/moduleLog.h>

#include <chrono>
#include <optional>

namespace ndpx::net {

namespace {

constexpr auto kCancelWait = std::chrono::milliseconds(5000);

// Completion threads whose request object was destroyed by their own
// callback. A thread cannot join itself, so each is joined when the next one
// arrives or, at the latest, when the module is unloaded: no completion
// thread outlives the code it runs.
class OrphanedThreads {
public:
    static OrphanedThreads& instance() {
        static OrphanedThreads orphans;
        return orphans;
    }
    OrphanedThreads(const OrphanedThreads&) = delete;
    OrphanedThreads& operator=(const OrphanedThreads&) = delete;

    // Called on `thread` itself, which then only finishes its callback.
    void adopt(std::thread thread) MFW_EXCLUDES(mutex_) {
        std::optional<std::thread> earlier;
        {
            CORE::MutexLock lock(mutex_);
            if (waiting_.joinable()) {
                earlier = std::move(waiting_);
            }
            waiting_ = std::move(thread);
        }
        if (earlier) {
            earlier->join();
        }
    }

    ~OrphanedThreads() {
        std::thread last;
        {
            CORE::MutexLock lock(mutex_);
            last = std::move(waiting_);
        }
        if (!last.joinable()) {
            return;
        }
        if (last.get_id() == std::this_thread::get_id()) {
            last.detach();  // the process is exiting from this very thread
        } else {
            last.join();
        }
    }

private:
    OrphanedThreads() = default;

    CORE::Mutex mutex_;
    std::thread waiting_ MFW_GUARDED_BY(mutex_);
};

}  // namespace

void CurlHttpRequest::cancelRequest() {
    std::shared_ptr<CancelToken> token;
    {
        CORE::MutexLock lock(shared_->mutex);
        if (shared_->state == State::Running) {
            token = cancel_;
        }
    }
    if (token) {
        token->cancel();
        bool ended = false;
        {
            CORE::MutexLock lock(shared_->mutex);
            ended = lock.waitFor(shared_->changed, kCancelWait, [this] {
                shared_->mutex.assertHeld();  // the wait holds it when it asks
                return shared_->state != State::Running;
            });
        }
        if (!ended) {
            MFW_LOG(4, "CurlHttpRequest::cancelRequest(): Failed to wait for cancel event");
        }
    }
    joinWorkers(false);
}

// Joins completion threads that are done or finishing. The calling thread
// (a completion callback) is never joined; with `all` (destruction) it goes
// to the orphans: after the callback it touches only the shared state.
void CurlHttpRequest::joinWorkers(bool all) {
    std::vector<std::thread> toJoin;
    std::optional<std::thread> self;
    {
        CORE::MutexLock lock(shared_->mutex);
        // A request still running keeps its thread (only destruction waits).
        if (worker_.joinable() && (all || shared_->state != State::Running)) {
            retired_.push_back(std::move(worker_));
        }
        std::vector<std::thread> keep;
        for (auto& thread : retired_) {
            if (thread.get_id() != std::this_thread::get_id()) {
                toJoin.push_back(std::move(thread));
            } else if (all) {
                self = std::move(thread);
            } else {
                keep.push_back(std::move(thread));
            }
        }
        retired_ = std::move(keep);
    }
    for (auto& thread : toJoin) {
        thread.join();
    }
    if (self) {
        OrphanedThreads::instance().adopt(std::move(*self));
    }
}

}  // namespace ndpx::net
