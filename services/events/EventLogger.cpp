#include "events/EventLogger.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <unordered_map>

namespace ndpx {
namespace {

using Info = EventLogger::EventInfo;

struct TableEntry {
    std::int32_t type;
    std::string_view name;
    Info info;
};

// clang-format off
constexpr TableEntry kEvents[] = {
    {1001, "AGENT_STARTUP", {EventLogger::kInformational, "The agent running on machine ${MachineName} has contacted the connection server and sent a startup message"}},
    {1002, "AGENT_SHUTDOWN", {EventLogger::kInformational, "The agent running on machine ${MachineName} has shut down, this machine will be unavailable"}},
    {1003, "AGENT_PENDING", {EventLogger::kInformational, "The agent running on machine ${MachineName} has accepted an allocated session for user ${UserDisplayName}"}},
    {1004, "AGENT_PENDING_EXPIRED", {EventLogger::kWarning, "The pending session on machine ${MachineName} for user ${UserDisplayName} has expired"}},
    {1005, "AGENT_SUSPEND", {EventLogger::kInformational, "The agent on machine ${MachineName} sent a suspend message"}},
    {1006, "AGENT_RESUME", {EventLogger::kInformational, "The agent on machine ${MachineName} sent a resume message"}},
    {1007, "AGENT_CONNECTED", {EventLogger::kInformational, "User ${UserDisplayName} has logged in to a new session on machine ${MachineName}"}},
    {1008, "AGENT_ENDED", {EventLogger::kInformational, "User ${UserDisplayName} has logged off machine ${MachineName}"}},
    {1009, "AGENT_DISCONNECTED", {EventLogger::kInformational, "User ${UserDisplayName} has disconnected from machine ${MachineName}"}},
    {1010, "AGENT_RECONNECTED", {EventLogger::kInformational, "User ${UserDisplayName} has reconnected to machine ${MachineName}"}},
    {1011, "AGENT_RECONFIGURED", {EventLogger::kInformational, "Machine ${MachineName} has been successfully reconfigured"}},
    {1012, "AGENT_UNMANAGED_REGISTRATION", {EventLogger::kInformational, "A machine named ${MachineName} was registered for use with Nimbrel."}},
    {1013, "AGENT_APPLICATION_LAUNCH_FAILED", {EventLogger::kWarning, "Machine named ${MachineName} failed to launch application ${ApplicationExecutable} for user ${UserDisplayName}"}},
    {1014, "AGENT_LAUNCH_FAILED", {EventLogger::kError, "Failed to launch Machine ${MachineName}"}},
    {1015, "AGENT_REFRESHED_CERTIFICATES", {EventLogger::kInformational, "The agent on machine ${MachineName} refreshed its certificates."}},
    {1016, "AGENT_CERTIFICATE_REFRESH_FAILED", {EventLogger::kError, "The agent on machine ${MachineName} failed to refresh its certificates. Cause: ${Description}"}},
    {1017, "AGENT_SWAPPED_CERTIFICATES", {EventLogger::kInformational, "The agent on machine ${MachineName} swapped its certificates."}},
    {1018, "AGENT_SWAPPED_CERTIFICATES_FAILED", {EventLogger::kError, "The agent on machine ${MachineName} failed to swap its certificates. Cause: ${Description}"}},
};
// clang-format on

// Built once, on first use (before any event can be handled: the manager
// records nothing before it runs), and only read afterwards.
const std::unordered_map<std::int32_t, const TableEntry*>& table() {
    static const auto map = [] {
        std::unordered_map<std::int32_t, const TableEntry*> m;
        for (const TableEntry& e : kEvents) {
            m.emplace(e.type, &e);
        }
        return m;
    }();
    return map;
}

const TableEntry* find(std::int64_t type) {
    if (type < INT32_MIN || type > INT32_MAX) {
        return nullptr;
    }
    const auto it = table().find(static_cast<std::int32_t>(type));
    return it == table().end() ? nullptr : it->second;
}

// The event writer's type codes.
constexpr int kWriterError = 1;
constexpr int kWriterWarning = 2;
constexpr int kWriterInformation = 4;

constexpr std::uint32_t kWriterTimeoutMs = 10000;

}  // namespace

const EventLogger::EventInfo* EventLogger::Lookup(std::int64_t type) {
    const TableEntry* e = find(type);
    return e == nullptr ? nullptr : &e->info;
}

std::string EventLogger::EventTypeName(std::int64_t type) {
    const TableEntry* e = find(type);
    if (e == nullptr) {
        // The name of an unknown type borrows the state names' wording.
        return "MQTT_STATE_" + std::to_string(type);
    }
    return std::string(e->name);
}

std::string EventLogger::FillTemplate(std::string_view messageTemplate,
                                      const CORE::PropertyBag* attributes) {
    std::string out;
    std::size_t p = 0;
    for (;;) {
        const std::size_t open = messageTemplate.find("${", p);
        if (open == std::string_view::npos) {
            break;
        }
        out.append(messageTemplate.substr(p, open - p));
        const std::size_t close = messageTemplate.find('}', open + 2);
        if (close == std::string_view::npos) {
            MFW_LOG(CORE::kLogWarning,
                    "EventLogger::RecordEvent(): Invalid Event Viewer message format: %.*s",
                    static_cast<int>(messageTemplate.size()), messageTemplate.data());
            p = open;
            break;
        }
        const std::wstring name = CORE::toWide(messageTemplate.substr(open + 2, close - open - 2));
        const auto value = attributes != nullptr ? attributes->get(name) : std::nullopt;
        out += value ? CORE::toUtf8(*value) : std::string("unknown");
        p = close + 1;
    }
    out.append(messageTemplate.substr(p));
    return out;
}

std::string EventLogger::AttributeList(const CORE::PropertyBag* attributes) {
    std::string list;
    for (std::size_t i = 0; attributes != nullptr && i < attributes->size(); ++i) {
        const std::string name = CORE::toUtf8(attributes->getName(i));
        if (name == "Type" || name == "ModuleAndEventText") {
            continue;
        }
        if (attributes->isBag(i)) {
            MFW_LOG(CORE::kLogWarning,
                    "EventLogger::RecordEvent(): Property (%s) is an unexpected bag.",
                    name.c_str());
            continue;
        }
        list += "\t" + name + "=" + CORE::toUtf8(attributes->getValue(i)) + "\n";
    }
    if (!list.empty()) {
        list.pop_back();
    }
    return list;
}

bool EventLogger::RecordEvent(const CORE::PropertyBag& bag) {
    const std::int64_t type = bag.getInt64(L"Type").value_or(0);
    if (type == 0) {
        MFW_LOG(CORE::kLogError,
                "EventLogger::RecordEvent(): Unable to record event without a type.");
        return false;
    }
    const EventInfo* info = Lookup(type);
    if (info == nullptr) {
        MFW_LOG(CORE::kLogWarning, "EventLogger::RecordEvent(): Unexpected event type: %lld",
                static_cast<long long>(type));
        return false;
    }
    int writerType = 0;
    if (info->severity == kWarning) {
        writerType = kWriterWarning;
    } else if (info->severity == kError) {
        writerType = kWriterError;
    } else if (type == 1015 || type == 1017) {
        writerType = kWriterInformation;
    } else {
        return true;  // published only
    }

    const CORE::PropertyBag* attributes = bag.getBag(L"attributes");
    if (attributes == nullptr) {
        MFW_LOG(CORE::kLogWarning,
                "EventLogger::RecordEvent(): Event %lld has no attributes, its text is filled "
                "with \"unknown\"",
                static_cast<long long>(type));
    }
    const std::string text = CORE::format("%s\n%s\n\nAttributes:\n%s", EventTypeName(type).c_str(),
                                          FillTemplate(info->messageTemplate, attributes).c_str(),
                                          AttributeList(attributes).c_str());

    CORE::PropertyBag request;
    request.setInt(L"wType", writerType);
    request.set(L"wCategory", L"0");
    request.set(L"wEventID", L"0");
    request.set(L"text", CORE::toWide(text));
    CORE::PropertyBag response;
    const int rc = CORE::MessageHandler::SendMsg(L"System", L"WriteWindowsEvent", request, response,
                                                 kWriterTimeoutMs, abort_);
    if (rc != 0) {
        MFW_LOG(CORE::kLogError, "EventLogger::SendEvent(): SendMsg failed: %d.", rc);
        return false;
    }
    return true;
}

}  // namespace ndpx
