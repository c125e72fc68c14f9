#pragma once
// Runs posted tasks one at a time, in order, on a thread it owns. Library
// callbacks post their work here so they can return at once.

#include <mfw/corethread.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

namespace ndpx {

class SerialExecutor {
public:
    explicit SerialExecutor(std::string name) : name_(std::move(name)) {}
    ~SerialExecutor() { stop(); }
    SerialExecutor(const SerialExecutor&) = delete;
    SerialExecutor& operator=(const SerialExecutor&) = delete;

    void start();
    // False once stopping: the task is not run.
    bool post(std::function<void()> task);
    // Runs what is queued, then ends the thread and joins it.
    void stop();
    bool onExecutorThread() const { return thread_.isCurrentThread(); }

private:
    void run();

    const std::string name_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = true;
    CORE::corethread thread_;
};

}  // namespace ndpx
