#include <mfw/TaskThread.h>

namespace CORE {

TaskThread::Started TaskThread::start(std::function<void()> task) {
    std::unique_ptr<corethread> finished;
    {
        MutexLock lock(mutex_);
        if (closed_) {
            return Started::Closed;
        }
        if (thread_ && !done_->load()) {
            return Started::Busy;
        }
        finished = std::move(thread_);
        auto done = std::make_shared<std::atomic<bool>>(false);
        auto thread = std::make_unique<corethread>();
        const bool started = thread->start(name_, [task = std::move(task), done] {
            // Marked done even when the task throws (the thread logs it).
            struct MarkDone {
                std::atomic<bool>& flag;
                ~MarkDone() { flag.store(true); }
            } mark{*done};
            task();
        });
        if (!started) {
            return Started::Failed;
        }
        thread_ = std::move(thread);
        done_ = std::move(done);
    }
    if (finished) {
        finished->join();  // its task is over: returns at once
    }
    return Started::Yes;
}

bool TaskThread::close() {
    std::unique_ptr<corethread> running;
    bool unfinished = false;
    {
        MutexLock lock(mutex_);
        closed_ = true;
        running = std::move(thread_);
        unfinished = running && !done_->load();
    }
    if (running) {
        running->join();
    }
    return unfinished;
}

void TaskThread::reopen() {
    MutexLock lock(mutex_);
    closed_ = false;
}

}  // namespace CORE
