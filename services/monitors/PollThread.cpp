#include "PollThread.h"

#include <mfw/corethread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace ndpx {

struct PollThread::Run {
    std::mutex mutex;
    std::condition_variable stopped;
    bool stop = false;
    std::atomic<bool> finished{false};
    CORE::corethread thread;

    void signal() {
        {
            const std::lock_guard lock(mutex);
            stop = true;
        }
        stopped.notify_all();
    }
};

PollThread::PollThread(platform::TimeSource& time) : time_(time) {}

PollThread::~PollThread() {
    stop(false);
}

PollThread::Start PollThread::start(const std::string& name, Body body) {
    std::unique_ptr<Run> ended;  // declared before the lock: joined after its release
    CORE::MutexLock lock(mutex_);
    if (closed_) {
        return Start::Closed;
    }
    if (run_ && !run_->finished) {
        return Start::AlreadyRunning;
    }
    ended = std::move(run_);
    auto run = std::make_unique<Run>();
    Run& current = *run;
    // The body never takes mutex_, so starting it here cannot deadlock.
    const bool started = current.thread.start(name, [this, &current, body = std::move(body)] {
        struct Finished {
            std::atomic<bool>& flag;
            ~Finished() { flag = true; }
        } finished{current.finished};
        body([this, &current](std::chrono::milliseconds timeout) {
            std::unique_lock wait(current.mutex);
            return time_.waitFor(wait, current.stopped, timeout,
                                 [&current] { return current.stop; });
        });
    });
    if (!started) {
        return Start::Failed;
    }
    run_ = std::move(run);
    return Start::Started;
}

bool PollThread::stop(bool close) {
    std::unique_ptr<Run> run;
    {
        CORE::MutexLock lock(mutex_);
        if (!run_) {
            return false;
        }
        closed_ = closed_ || close;
        if (run_->thread.isCurrentThread()) {
            // Asked from the body (a publish that stops its own monitor): the
            // run ends when the body returns; the next stop or start joins it.
            run_->signal();
            return true;
        }
        run = std::move(run_);
    }
    run->signal();
    run->thread.join();
    return true;
}

}  // namespace ndpx
