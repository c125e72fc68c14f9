#include "ThreadReaper.h"

#include <system_error>

namespace ndpx::net {

ThreadReaper& ThreadReaper::instance() {
    static ThreadReaper reaper;
    return reaper;
}

void ThreadReaper::adopt(std::thread thread) {
    CORE::MutexLock lock(mutex_);
    adopted_.push_back(std::move(thread));
    if (!reaper_.joinable() && !stopping_) {
        try {
            // Started under the lock, so that only one is ever started.
            reaper_ = std::thread([this] { reap(); });
        } catch (const std::system_error&) {
            // Without a reaper the thread is joined when the module goes.
        }
    }
    changed_.notify_one();
}

void ThreadReaper::reap() {
    for (bool stop = false; !stop;) {
        std::vector<std::thread> ended;
        {
            CORE::MutexLock lock(mutex_);
            lock.wait(changed_, [this] {
                mutex_.assertHeld();  // the wait holds it when it asks
                return stopping_ || !adopted_.empty();
            });
            ended.swap(adopted_);
            stop = stopping_;
        }
        for (auto& thread : ended) {
            thread.join();
        }
    }
}

ThreadReaper::~ThreadReaper() {
    std::thread reaper;
    std::vector<std::thread> left;
    {
        CORE::MutexLock lock(mutex_);
        stopping_ = true;
        reaper = std::move(reaper_);
        changed_.notify_one();
    }
    if (reaper.joinable()) {
        reaper.join();
    }
    {
        CORE::MutexLock lock(mutex_);
        left.swap(adopted_);
    }
    for (auto& thread : left) {
        if (thread.get_id() == std::this_thread::get_id()) {
            thread.detach();  // the process is exiting from this very thread
        } else {
            thread.join();
        }
    }
}

}  // namespace ndpx::net
