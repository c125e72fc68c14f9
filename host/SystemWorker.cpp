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
    SystemOperation(CORE::PluginLoader& loader, EventWriter& events, const RebootPolicy& reboot)
        : loader_(loader), events_(events), reboot_(reboot) {}

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
        if (CORE::iequals(operation, L"RequestSystemReboot")) {
            return requestReboot(request, response);
        }
        if (CORE::iequals(operation, L"Ping")) {
            return true;  // the host's watchdog: the worker still answers
        }
        setReplyError(response, CORE::kErrorNotImplemented, L"unknown operation");
        return false;
    }

private:
    bool requestReboot(const CORE::PropertyBag& request, CORE::PropertyBag& response) {
        const std::string reason = CORE::toUtf8(request.get(L"Reason", L"an unnamed sender"));
        if (reboot_.mode == RebootPolicy::Mode::Log) {
            CORE::__SysMessage(kSource, CORE::kLogInfo,
                               "System reboot requested by %s; not rebooting (--reboot=log)",
                               reason.c_str());
            return true;
        }
        CORE::__SysMessage(kSource, CORE::kLogInfo,
                           "System reboot requested by %s; asking the system to reboot",
                           reason.c_str());
        std::string error;
        if (!reboot_.request || !reboot_.request(error)) {
            CORE::__SysMessage(kSource, CORE::kLogError, "System: reboot refused: %s",
                               error.c_str());
            setReplyError(response, CORE::kErrorHandlerFailed, CORE::toWide(error));
            return false;
        }
        return true;
    }

    CORE::PluginLoader& loader_;
    EventWriter& events_;
    const RebootPolicy& reboot_;
};

}  // namespace

RebootPolicy::Mode RebootPolicy::defaultMode(const std::filesystem::path& root) {
    // Only the machine's own root may restart the machine.
    return root.lexically_normal() == "/" ? Mode::System : Mode::Log;
}

SystemWorker::SystemWorker(CORE::PluginLoader& loader, EventWriter& events, RebootPolicy reboot)
    : loader_(loader), events_(events), reboot_(std::move(reboot)) {
    CORE::MessageFrameWork::System().AddWorkerEx(&makeOperation, this, L"System", L"Host services",
                                                 0, nullptr, 1);
}

SystemWorker::~SystemWorker() {
    // Gone already when the host framework was shut down first.
    CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
}

std::unique_ptr<CORE::WorkItem> SystemWorker::makeOperation(void* self) {
    auto* worker = static_cast<SystemWorker*>(self);
    return std::make_unique<SystemOperation>(worker->loader_, worker->events_, worker->reboot_);
}

}  // namespace ndpx::host
