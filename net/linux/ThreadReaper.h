#pragma once
// Joins threads that cannot be joined by their owner: a completion thread
// whose callback destroyed the request object that owned it. A thread cannot
// join itself, so it hands itself over here and a reaper thread joins it as
// soon as it ends. The reaper is joined when the module is unloaded, so no
// thread outlives the code it runs.

#include <mfw/corelock.h>

#include <condition_variable>
#include <thread>
#include <vector>

namespace ndpx::net {

class ThreadReaper {
public:
    static ThreadReaper& instance();
    ~ThreadReaper();
    ThreadReaper(const ThreadReaper&) = delete;
    ThreadReaper& operator=(const ThreadReaper&) = delete;

    // Called on `thread` itself, which then only finishes what it is doing.
    void adopt(std::thread thread) MFW_EXCLUDES(mutex_);

private:
    ThreadReaper() = default;
    void reap() MFW_EXCLUDES(mutex_);

    CORE::Mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::thread> adopted_ MFW_GUARDED_BY(mutex_);
    std::thread reaper_ MFW_GUARDED_BY(mutex_);
    bool stopping_ MFW_GUARDED_BY(mutex_) = false;
};

}  // namespace ndpx::net
