// CurlHttpRequest's cancel and its completion threads.

#include "net/linux/CurlHttpRequest.h"

#include "ThreadReaper.h"

#include <mfw/moduleLog.h>

#include <chrono>
#include <optional>

namespace ndpx::net {

namespace {

constexpr auto kCancelWait = std::chrono::milliseconds(5000);

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
// to the reaper: after the callback it touches only the shared state.
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
        ThreadReaper::instance().adopt(std::move(*self));
    }
}

}  // namespace ndpx::net
