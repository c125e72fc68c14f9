#pragma once
// A host worker that answers every request with success, registered for the
// lifetime of the object (e.g. a "DesktopManager" for the module's queue
// messages), and keeps what it was sent for the test to look at.

#include <mfw/MessageFrameWork.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace ndpx::test {

class StubWorker {
public:
    struct Message {
        std::wstring operation;
        CORE::PropertyBag request;
    };

    explicit StubWorker(std::wstring name) : name_(std::move(name)) {
        CORE::MessageFrameWork::System().AddWorkerEx(&make, this, name_, L"test stub", 0, nullptr);
    }
    ~StubWorker() { CORE::MessageFrameWork::System().RemoveWorker(name_, 0); }
    StubWorker(const StubWorker&) = delete;
    StubWorker& operator=(const StubWorker&) = delete;

    // The oldest message not yet taken; nullopt when none arrives in `limit`.
    std::optional<Message> nextMessage(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        if (!arrived_.wait_for(lock, limit, [this] { return !received_.empty(); })) {
            return std::nullopt;
        }
        Message m = std::move(received_.front());
        received_.pop_front();
        return m;
    }

private:
    class Ack : public CORE::WorkItem {
    public:
        explicit Ack(StubWorker& owner) : owner_(owner) {}
        bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                           CORE::PropertyBag&) override {
            owner_.record(operation, request);
            return true;
        }

    private:
        StubWorker& owner_;
    };
    static std::unique_ptr<CORE::WorkItem> make(void* self) {
        return std::make_unique<Ack>(*static_cast<StubWorker*>(self));
    }

    void record(const std::wstring& operation, const CORE::PropertyBag& request) {
        std::lock_guard lock(mutex_);
        received_.push_back({operation, request});
        arrived_.notify_all();
    }

    std::wstring name_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Message> received_;
};

}  // namespace ndpx::test
