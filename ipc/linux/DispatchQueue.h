#pragma once
// The dispatch thread of a listener: runs its callbacks and the completions
// of sends one at a time, in the order they were queued, so that none runs
// on the I/O thread. The queue is bounded for what the I/O thread can hold
// back (the messages it receives): that thread asks hasRoom() before it
// reads, and `onRoom` wakes it once a full queue has room again. Completions
// and close events are queued whatever the bound; the limits of each stream
// bound those.

#include <ipc/IpcTransport.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace ndpx::ipc::seqpacket {

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
public:
    using Task = std::function<void()>;
    struct Bounds {
        std::size_t tasks = 0;
        std::size_t bytes = 0;
    };

    DispatchQueue(Bounds bounds, IpcLogSink log, std::function<void()> onRoom);
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    // Starts the thread; false (logged) when the system refused one.
    bool start(const std::string& threadName);
    // Queues `task`, which holds `bytes` of received data. Once the thread
    // has ended, runs it on the caller instead, so that none is lost.
    void post(Task task, std::size_t bytes = 0);
    // Whether the I/O thread may queue more received data; when not,
    // `onRoom` runs once it may.
    bool hasRoom();
    bool onDispatchThread() const { return std::this_thread::get_id() == threadId_; }
    // Runs what is queued, then ends the thread and joins it; called on the
    // thread itself (from a callback), it lets it end after the callback.
    void stop();

private:
    struct Item {
        Task task;
        std::size_t bytes = 0;
    };

    void run();
    bool roomLocked() const { return items_.size() < bounds_.tasks && bytes_ < bounds_.bytes; }

    const Bounds bounds_;
    const IpcLogSink log_;
    const std::function<void()> onRoom_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Item> items_;
    std::size_t bytes_ = 0;
    bool ioWaiting_ = false;
    bool stopping_ = false;
    bool ended_ = true;  // until start(), tasks run on the caller

    std::thread thread_;
    std::thread::id threadId_;  // set before the thread runs, then only read
};

}  // namespace ndpx::ipc::seqpacket
