#include "DispatchQueue.h"

#include "IpcLog.h"

#include <platform/Threads.h>

#include <exception>
#include <system_error>
#include <utility>

namespace ndpx::ipc::seqpacket {

DispatchQueue::DispatchQueue(Bounds bounds, IpcLogSink log, std::function<void()> onRoom)
    : bounds_(bounds), log_(std::move(log)), onRoom_(std::move(onRoom)) {}

DispatchQueue::~DispatchQueue() {
    stop();
    // The thread holds this object until it ends, so it can be the last
    // owner: then it is that thread, about to return, that runs this.
    if (thread_.joinable()) {
        thread_.detach();
    }
}

bool DispatchQueue::start(const std::string& threadName) {
    const std::lock_guard lock(mutex_);
    try {
        // Started under the lock so that the thread sees threadId_ set.
        thread_ = std::thread([self = shared_from_this(), threadName] {
            platform::setCurrentThreadOsName(threadName);
            self->run();
        });
    } catch (const std::system_error& e) {
        writeLog(log_, level::kError, "DispatchQueue::start",
                 std::string("cannot start the dispatch thread: ") + e.what());
        return false;
    }
    threadId_ = thread_.get_id();
    ended_ = false;
    return true;
}

void DispatchQueue::post(Task task, std::size_t bytes) {
    {
        const std::lock_guard lock(mutex_);
        if (!ended_) {
            items_.push_back(Item{std::move(task), bytes});
            bytes_ += bytes;
            changed_.notify_one();
            return;
        }
    }
    task();
}

bool DispatchQueue::hasRoom() {
    const std::lock_guard lock(mutex_);
    if (roomLocked()) {
        return true;
    }
    ioWaiting_ = true;
    return false;
}

void DispatchQueue::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable() && !onDispatchThread()) {
        thread_.join();
    }
}

void DispatchQueue::run() {
    for (;;) {
        Item item;
        bool room = false;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return !items_.empty() || stopping_; });
            if (items_.empty()) {
                ended_ = true;
                return;
            }
            item = std::move(items_.front());
            items_.pop_front();
            bytes_ -= item.bytes;
            room = ioWaiting_ && roomLocked();
            if (room) {
                ioWaiting_ = false;
            }
        }
        if (room && onRoom_) {
            onRoom_();
        }
        try {
            item.task();
        } catch (const std::exception& e) {
            writeLog(log_, level::kError, "DispatchQueue::run",
                     std::string("a callback threw: ") + e.what());
        } catch (...) {
            writeLog(log_, level::kError, "DispatchQueue::run", "a callback threw");
        }
    }
}

}  // namespace ndpx::ipc::seqpacket
