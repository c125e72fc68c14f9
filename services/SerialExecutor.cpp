#include "services/SerialExecutor.h"

#include <mfw/moduleLog.h>

namespace ndpx {

void SerialExecutor::start() {
    {
        CORE::MutexLock lock(mutex_);
        if (!stopping_) {
            return;
        }
        stopping_ = false;
    }
    thread_.start(name_, [this] { run(); });
}

bool SerialExecutor::post(std::function<void()> task) {
    {
        CORE::MutexLock lock(mutex_);
        if (stopping_) {
            return false;
        }
        tasks_.push_back(std::move(task));
    }
    cv_.notify_one();
    return true;
}

void SerialExecutor::stop() {
    {
        CORE::MutexLock lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    thread_.join();
}

void SerialExecutor::run() {
    for (;;) {
        std::function<void()> task;
        {
            CORE::MutexLock lock(mutex_);
            lock.wait(cv_, [this] {
                mutex_.assertHeld();
                return stopping_ || !tasks_.empty();
            });
            if (tasks_.empty()) {
                return;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        try {
            task();
        } catch (const std::exception& e) {
            MFW_LOG(CORE::kLogError, "SerialExecutor %s: task failed: %s", name_.c_str(), e.what());
        } catch (...) {
            MFW_LOG(CORE::kLogError, "SerialExecutor %s: task failed", name_.c_str());
        }
    }
}

}  // namespace ndpx
