#pragma once
// A host worker that answers every request with success, registered for the
// lifetime of the object (e.g. a "DesktopManager" for the module's queue
// messages).

#include <mfw/MessageFrameWork.h>

#include <string>

namespace ndpx::test {

class StubWorker {
public:
    explicit StubWorker(std::wstring name) : name_(std::move(name)) {
        CORE::MessageFrameWork::System().AddWorkerEx(&make, nullptr, name_, L"test stub", 0,
                                                     nullptr);
    }
    ~StubWorker() { CORE::MessageFrameWork::System().RemoveWorker(name_, 0); }
    StubWorker(const StubWorker&) = delete;
    StubWorker& operator=(const StubWorker&) = delete;

private:
    class Ack : public CORE::WorkItem {
    public:
        bool handleMessage(const std::wstring&, CORE::PropertyBag&, CORE::PropertyBag&) override {
            return true;
        }
    };
    static std::unique_ptr<CORE::WorkItem> make(void*) { return std::make_unique<Ack>(); }

    std::wstring name_;
};

}  // namespace ndpx::test
