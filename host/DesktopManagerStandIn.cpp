#include "host/DesktopManagerStandIn.h"

#include "host/HostFacts.h"
#include "host/SessionReport.h"
#include "host/TransportStandIns.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <platform/Paths.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <ctime>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

// Messages that plug-ins send to manage their place in the agent.
constexpr std::array<const wchar_t*, 2> kAcknowledged = {L"SetSSOv2Settings", L"Ping"};

std::wstring isoUtc(std::time_t t) {
    std::tm tm{};
    char text[32] = "";
    if (::gmtime_r(&t, &tm) != nullptr) {
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    }
    return CORE::toWide(text);
}

void getHostFacts(CORE::PropertyBag& response) {
    const HostFacts facts = collectHostFacts();
    response.set(L"HOSTNAME", CORE::toWide(facts.hostname));
    response.set(L"KERNEL_RELEASE", CORE::toWide(facts.kernelRelease));
    response.set(L"OS_NAME", CORE::toWide(facts.osPrettyName));
    response.setInt64(L"UPTIME_SECONDS", static_cast<std::int64_t>(facts.uptimeSeconds));
    response.setInt64(L"CPU_COUNT", facts.cpuCount);
    response.setInt64(L"MEMORY_TOTAL_BYTES", static_cast<std::int64_t>(facts.memoryTotalBytes));
    response.set(L"RESULT", L"OK");
}

void listSessions(CORE::PropertyBag& response) {
    const auto sessions = collectLoginSessions();
    for (const LoginSession& s : sessions) {
        CORE::PropertyBag bag;
        bag.set(L"USER", CORE::toWide(s.user));
        bag.set(L"TTY", CORE::toWide(s.tty));
        bag.set(L"HOST", CORE::toWide(s.host));
        bag.set(L"LOGIN_TIME", isoUtc(s.loginTime));
        bag.setInt64(L"PID", s.pid);
        response.addBag(L"SESSION", bag);
    }
    response.setInt64(L"SESSION_COUNT", static_cast<std::int64_t>(sessions.size()));
    response.set(L"RESULT", L"OK");
}

// The module reports the agent's events (certificate renewal among them) to
// the desktop manager, which hands them back to the module's worker to be
// published, as the agent's own desktop worker does. Posted, not sent: the
// sender gets its answer at once and a busy or stopping module never holds
// up this worker or the host's shutdown.
void relayEvent(const CORE::PropertyBag& request, CORE::PropertyBag& response) {
    const long long type = request.getInt64(L"Type").value_or(0);
    if (CORE::MessageHandler::PostMsg(L"MQTT", L"SendEvent", request)) {
        CORE::__SysMessage(kSource, CORE::kLogInfo, "DesktopManager: event %lld relayed to MQTT",
                           type);
    } else {
        CORE::__SysMessage(kSource, CORE::kLogWarning,
                           "DesktopManager: event %lld dropped, no worker MQTT", type);
    }
    response.set(L"RESULT", L"OK");
}

// The agent's desktop worker answers the module's request for a session
// report by handing a report to the module's worker, which publishes it.
// Posted: a busy or stopping module never holds up this worker.
void sendSessionReport(CORE::PropertyBag& response) {
    const auto report =
        buildSessionReport(collectDesktopSessions(platform::paths::root()), collectHostFacts());
    if (CORE::MessageHandler::PostMsg(L"MQTT", L"PublishAsyncNotification", report)) {
        CORE::__SysMessage(kSource, CORE::kLogDebug,
                           "DesktopManager: session report of %lld sessions handed to MQTT",
                           static_cast<long long>(report.count(L"SESSION")));
    } else {
        CORE::__SysMessage(kSource, CORE::kLogWarning,
                           "DesktopManager: session report dropped, no worker MQTT");
    }
    response.set(L"RESULT", L"OK");
}

// Which process ran a command, and its how-manieth run in that process: two
// answers to one ID with different stamps mean the command ran twice, the
// same stamp twice means one answer was delivered twice (soak/).
void stampExecution(CORE::PropertyBag& response) {
    static std::atomic<long long> runs{0};
    response.setInt64(L"EXEC_PID", static_cast<long long>(::getpid()));
    response.setInt64(L"EXEC_SEQ", ++runs);
}

class DesktopManagerOperation : public CORE::serviceOperation {
public:
    bool handleMessage(const std::wstring& operation, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        if (CORE::iequals(operation, L"GetHostFacts")) {
            getHostFacts(response);
            return true;
        }
        if (CORE::iequals(operation, L"ListSessions")) {
            listSessions(response);
            return true;
        }
        if (CORE::iequals(operation, L"SendEvent")) {
            relayEvent(request, response);
            return true;
        }
        if (CORE::iequals(operation, L"SendSessionReport")) {
            sendSessionReport(response);
            return true;
        }
        if (CORE::iequals(operation, L"StartSession")) {
            response = startSessionAnswer(request);
            return true;
        }
        if (CORE::iequals(operation, L"Echo")) {
            response = request;  // benchmarks measure the transport, not the work
            stampExecution(response);
            return true;
        }
        if (handleNotifyQueueMessage(operation, request, response)) {
            return true;
        }
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
