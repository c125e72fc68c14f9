#pragma once
// Runs posted tasks one at a time, in order, on a thread it owns. Library
// callbacks post their work here so they can return at once.

#include <mfw/corelock.h>
#include <mfw/corethread.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <string>

namespace ndpx {

class SerialExecutor {
public:
    explicit SerialExecutor(std::string name) : name_(std::move(name)) {}
    ~SerialExecutor() { stop(); }
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void start() MFW_EXCLUDES(mutex_);
    // False once stopping: the task is not run.
    bool post(std::function<void()> task) MFW_EXCLUDES(mutex_);
    // Runs what is queued, then ends the thread and joins it.
    void stop() MFW_EXCLUDES(mutex_);
    bool onExecutorThread() const { return thread_.isCurrentThread(); }

private:
    void run();

    const std::string name_;
    CORE::Mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_ MFW_GUARDED_BY(mutex_);
    bool stopping_ MFW_GUARDED_BY(mutex_) = true;
    CORE::corethread thread_;
};

}  // namespace ndpx
