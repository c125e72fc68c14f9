#pragma once
// One task at a time on a thread of its own: the healing and tear-down
// tasks. A task asked for while one runs is refused. close() waits for the
// running task and refuses new ones until reopen(), so that an owner that is
// stopping is not handed a new task after it has waited.

#include <mfw/corelock.h>
#include <mfw/corethread.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace CORE {

class TaskThread {
public:
    explicit TaskThread(std::string name) : name_(std::move(name)) {}
    ~TaskThread() { close(); }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    enum class Started { Yes, Busy, Closed, Failed };
    Started start(std::function<void()> task) MFW_EXCLUDES(mutex_);
    // True when it waited for a task that had not finished.
    bool close() MFW_EXCLUDES(mutex_);
    void reopen() MFW_EXCLUDES(mutex_);

private:
    const std::string name_;
    Mutex mutex_;
    std::unique_ptr<corethread> thread_ MFW_GUARDED_BY(mutex_);
    std::shared_ptr<std::atomic<bool>> done_ MFW_GUARDED_BY(mutex_);
    bool closed_ MFW_GUARDED_BY(mutex_) = false;
};

}  // namespace CORE
