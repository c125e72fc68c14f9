#include "SystemWorker.h"

#include <mfw/corestring.h>
#include <mfw/log.h>

#include <systemd/sd-journal.h>

#include <cstdio>
#include <string>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

class SystemOperation : public CORE::serviceOperation {
public:
    explicit SystemOperation(CORE::PluginLoader* loader) : loader_(loader) {}

    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        if (CORE::iequals(operation, L"UnloadPlugin")) {
            const std::string name = CORE::toUtf8(request.get(L"FileName", L""));
            CORE::__SysMessage(kSource, CORE::kLogInfo, "System: UnloadPlugin %s", name.c_str());
            if (!loader_->unload(name)) {
                setReplyError(response, CORE::kErrorNotFound, L"no such plug-in");
                return false;
            }
            return true;
        }
        if (CORE::iequals(operation, L"WriteWindowsEvent")) {
            return writeEvent(request);
        }
        setReplyError(response, CORE::kErrorNotImplemented, L"unknown operation");
        return false;
    }

private:
    CORE::PluginLoader* loader_;
};

std::unique_ptr<CORE::WorkItem> makeSystemOperation(void* context) {
    return std::make_unique<SystemOperation>(static_cast<CORE::PluginLoader*>(context));
}

// Event types as the agent sends them, mapped to journal priorities.
int priorityOf(const std::wstring& type) {
    if (CORE::iequals(type, L"error")) {
        return 3;  // LOG_ERR
    }
    if (CORE::iequals(type, L"warning")) {
        return 4;  // LOG_WARNING
    }
    return 6;  // LOG_INFO
}

}  // namespace

void addSystemWorker(CORE::PluginLoader& loader) {
    CORE::MessageFrameWork::System().AddWorkerEx(&makeSystemOperation, &loader, L"System",
                                                 L"Host services", 0, nullptr, 1);
}

bool writeEvent(const CORE::PropertyBag& event) {
    std::string message;
    for (std::size_t i = 0; i < event.size(); ++i) {
        if (event.isBag(i)) {
            continue;
        }
        if (!message.empty()) {
            message += "; ";
        }
        message += CORE::toUtf8(event.getName(i)) + "=" + CORE::toUtf8(event.getValue(i));
    }
    const int priority = priorityOf(event.get(L"TYPE", L""));
    const int rc = sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%d", priority,
                                   "SYSLOG_IDENTIFIER=agenthost", nullptr);
    if (rc < 0) {
        std::fprintf(stderr, "agenthost event: %s\n", message.c_str());
    }
    return true;
}

}  // namespace ndpx::host
