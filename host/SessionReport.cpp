#include "host/SessionReport.h"

#include <mfw/corestring.h>

#include <sys/utsname.h>

namespace ndpx::host {
namespace {

// The NIS domain, as a workgroup stands for a Windows domain.
std::wstring domainName() {
    utsname uts{};
    if (::uname(&uts) != 0 || std::string_view(uts.domainname).empty() ||
        std::string_view(uts.domainname) == "(none)") {
        return L"WORKGROUP";
    }
    return CORE::toWide(uts.domainname);
}

}  // namespace

CORE::PropertyBag buildSessionReport(const std::vector<DesktopSession>& sessions,
                                     const HostFacts& facts) {
    CORE::PropertyBag report;
    report.set(L"HOSTNAME", CORE::toWide(facts.hostname));
    report.set(L"DOMAIN", domainName());
    report.set(L"AGENTUPDATE", L"NONE");
    report.setInt64(L"SESSIONCOUNT", static_cast<std::int64_t>(sessions.size()));
    for (const DesktopSession& s : sessions) {
        CORE::PropertyBag bag;
        bag.set(L"SESSIONID", CORE::toWide(s.id));
        bag.set(L"USER", CORE::toWide(s.user));
        bag.set(L"STATE", CORE::toWide(s.state));
        bag.set(L"TYPE", CORE::toWide(s.type));
        bag.set(L"SEAT", CORE::toWide(s.seat));
        bag.setInt64(L"STARTTIME", static_cast<std::int64_t>(s.startTime));
        bag.set(L"APPIDHISTORY", L"");
        bag.set(L"BROKERINGENDPOINTID", CORE::toWide(s.id));
        bag.set(L"GROUPSIDS", L"");
        bag.set(L"HOSTPODID", CORE::toWide(facts.hostname));
        report.addBag(L"SESSION", bag);
    }
    return report;
}

CORE::PropertyBag startSessionAnswer(const CORE::PropertyBag& request) {
    CORE::PropertyBag protocol;
    protocol.set(L"NAME", request.get(L"PROTOCOL", L"console"));
    CORE::PropertyBag answer;
    answer.setBag(L"PROTOCOL", protocol);
    answer.set(L"RESULT", L"OK");
    return answer;
}

}  // namespace ndpx::host
