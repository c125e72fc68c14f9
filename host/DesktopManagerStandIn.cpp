#include "host/DesktopManagerStandIn.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>

#include <array>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

// Messages that plug-ins send to manage their place in the agent.
constexpr std::array<const wchar_t*, 5> kAcknowledged = {L"NotifyQueueAdd", L"NotifyQueueRemove",
                                                         L"NotifyQueueRegisterMessageTransport",
                                                         L"SetSSOv2Settings", L"Ping"};

class DesktopManagerOperation : public CORE::serviceOperation {
public:
    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        for (const wchar_t* known : kAcknowledged) {
            if (CORE::iequals(operation, known)) {
                CORE::__SysMessage(kSource, CORE::kLogDebug, "DesktopManager: %s %s",
                                   CORE::toUtf8(operation).c_str(),
                                   CORE::toUtf8(request.get(L"QUEUE", L"")).c_str());
                response.set(L"RESULT", L"OK");
                return true;
            }
        }
        CORE::__SysMessage(kSource, CORE::kLogWarning, "DesktopManager: unknown command %s",
                           CORE::toUtf8(operation).c_str());
        response.set(L"ERROR", L"Unknown command " + operation);
        setReplyError(response, CORE::kErrorNotImplemented, L"unknown command");
        return false;
    }
};

std::unique_ptr<CORE::WorkItem> makeOperation(void*) {
    return std::make_unique<DesktopManagerOperation>();
}

}  // namespace

void addDesktopManagerStandIn() {
    CORE::MessageFrameWork::System().AddWorkerEx(&makeOperation, nullptr, L"DesktopManager",
                                                 L"Desktop manager stand-in", 0, nullptr, 4);
}

}  // namespace ndpx::host
