#include "host/TransportStandIns.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <mfw/registry.h>

#include <mutex>
#include <set>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";
constexpr const char* kNodeManagerKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
constexpr const char* kTransportValue = "MS Transport";

std::string transportSetting() {
    const auto value = CORE::registry().get(kNodeManagerKey, kTransportValue);
    return value ? value->asText() : std::string();
}

std::string joined(const std::vector<std::wstring>& names) {
    std::string out;
    for (const auto& name : names) {
        out += (out.empty() ? "" : ", ") + CORE::toUtf8(name);
    }
    return out;
}

class NotifyQueue {
public:
    static NotifyQueue& instance() {
        static NotifyQueue queue;
        return queue;
    }

    std::vector<std::wstring> add(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        seed();
        members_.insert(name);
        return {members_.begin(), members_.end()};
    }
    std::vector<std::wstring> remove(const std::wstring& name) {
        std::lock_guard lock(mutex_);
        seed();
        members_.erase(name);
        return {members_.begin(), members_.end()};
    }
    std::vector<std::wstring> members() {
        std::lock_guard lock(mutex_);
        seed();
        return {members_.begin(), members_.end()};
    }

private:
    // An agent on the older transport starts with its bridge in the queue.
    void seed() {
        if (seeded_) {
            return;
        }
        seeded_ = true;
        const std::string transport = transportSetting();
        if (!transport.empty() && !CORE::iequals(CORE::toWide(transport), L"MQTT")) {
            members_.insert(L"JMSBridge");
        }
    }

    std::mutex mutex_;
    bool seeded_ = false;
    std::set<std::wstring> members_;
};

// A worker that only logs what it is sent.
class LoggingStandIn : public CORE::serviceOperation {
public:
    explicit LoggingStandIn(const char* name) : name_(name) {}
    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        std::string fields;
        for (std::size_t i = 0; i < request.size(); ++i) {
            if (!request.isBag(i)) {
                fields += " " + CORE::toUtf8(request.getName(i)) + "=" +
                          CORE::toUtf8(request.getValue(i));
            }
        }
        CORE::__SysMessage(kSource, CORE::kLogInfo, "%s: received %s%s", name_,
                           CORE::toUtf8(operation).c_str(), fields.c_str());
        if (CORE::iequals(operation, L"ShutdownNotify") && request.get(L"DISABLE", L"") == L"1") {
            CORE::__SysMessage(kSource, CORE::kLogInfo, "%s: disabled", name_);
        }
        response.set(L"RESULT", L"OK");
        return true;
    }

private:
    const char* name_;
};

std::unique_ptr<CORE::WorkItem> makeJmsBridge(void*) {
    return std::make_unique<LoggingStandIn>("JMSBridge");
}
std::unique_ptr<CORE::WorkItem> makeDaasAgent(void*) {
    return std::make_unique<LoggingStandIn>("DaasAgent");
}

}  // namespace

void addTransportStandIns() {
    auto& system = CORE::MessageFrameWork::System();
    system.AddWorkerEx(&makeJmsBridge, nullptr, L"JMSBridge", L"Older transport stand-in", 0,
                       nullptr, 1);
    system.AddWorkerEx(&makeDaasAgent, nullptr, L"DaasAgent", L"Old cloud agent stand-in", 0,
                       nullptr, 1);
}

bool handleNotifyQueueMessage(const std::wstring& operation, const CORE::PropertyBag& request,
                              CORE::PropertyBag& response) {
    const std::wstring queue = request.get(L"QUEUE", L"");
    const std::string name = CORE::toUtf8(queue);
    const std::string op = CORE::toUtf8(operation);
    const bool add = CORE::iequals(operation, L"NotifyQueueAdd");
    // The desktop manager keeps the notify queue: its lines say so.
    if (add || CORE::iequals(operation, L"NotifyQueueRemove")) {
        const auto members =
            add ? NotifyQueue::instance().add(queue) : NotifyQueue::instance().remove(queue);
        CORE::__SysMessage(kSource, CORE::kLogInfo, "DesktopManager: %s %s (notify queue: %s)",
                           op.c_str(), name.c_str(), joined(members).c_str());
    } else if (CORE::iequals(operation, L"NotifyQueueRegisterMessageTransport")) {
        const bool stored =
            !queue.empty() && CORE::registry().set(kNodeManagerKey, kTransportValue,
                                                   platform::SettingValue::ofString(name));
        CORE::__SysMessage(kSource, stored ? CORE::kLogInfo : CORE::kLogWarning,
                           "DesktopManager: %s %s: message transport %s", op.c_str(), name.c_str(),
                           stored ? "registered" : "not registered");
        if (!stored) {
            CORE::serviceOperation::setReplyError(response, CORE::kErrorHandlerFailed,
                                                  L"message transport not registered");
            return true;
        }
    } else {
        return false;
    }
    response.set(L"RESULT", L"OK");
    return true;
}

std::vector<std::wstring> notifyQueueMembers() {
    return NotifyQueue::instance().members();
}

}  // namespace ndpx::host
