#include "host/SystemWorker.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>

#include <string>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

class SystemOperation : public CORE::serviceOperation {
public:
    SystemOperation(CORE::PluginLoader& loader, EventWriter& events)
        : loader_(loader), events_(events) {}

    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        if (CORE::iequals(operation, L"UnloadPlugin")) {
            const std::string name = CORE::toUtf8(request.get(L"FileName", L""));
            CORE::__SysMessage(kSource, CORE::kLogInfo, "System: UnloadPlugin %s", name.c_str());
            if (!loader_.unload(name)) {
                setReplyError(response, CORE::kErrorNotFound, L"no such plug-in");
                return false;
            }
            return true;
        }
        if (CORE::iequals(operation, L"WriteWindowsEvent")) {
            // False (the sender sees a failure) only when neither the
            // journal nor the host log took the entry.
            return events_.write(request);
        }
        setReplyError(response, CORE::kErrorNotImplemented, L"unknown operation");
        return false;
    }

private:
    CORE::PluginLoader& loader_;
    EventWriter& events_;
};

}  // namespace

SystemWorker::SystemWorker(CORE::PluginLoader& loader, EventWriter& events)
    : loader_(loader), events_(events) {
    CORE::MessageFrameWork::System().AddWorkerEx(&makeOperation, this, L"System", L"Host services",
                                                 0, nullptr, 1);
}

SystemWorker::~SystemWorker() {
    // Gone already when the host framework was shut down first.
    CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
}

std::unique_ptr<CORE::WorkItem> SystemWorker::makeOperation(void* self) {
    auto* worker = static_cast<SystemWorker*>(self);
    return std::make_unique<SystemOperation>(worker->loader_, worker->events_);
}

}  // namespace ndpx::host
