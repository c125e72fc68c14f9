#pragma once
// Evaluation of a proxy auto-configuration script with Duktape, with the
// standard PAC helper functions (isPlainHostName, dnsDomainIs,
// localHostOrDomainIs, isResolvable, isInNet, dnsResolve, myIpAddress,
// dnsDomainLevels, shExpMatch, weekdayRange, dateRange, timeRange, and the
// IPv6-aware *Ex forms).
//
// This runs the script in the calling process with a memory limit but no
// time limit, and a fatal engine error ends the process: it is meant for the
// sandbox process of runPacScript (ProxyConfig.h), never for a process that
// must survive the script.

#include "net/ProxyConfig.h"

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace ndpx::net {

struct PacEnvironment {
    std::string myIpAddress = "127.0.0.1";
    std::vector<std::string> myIpAddresses;  // for myIpAddressEx
    std::tm localNow{};
    std::tm utcNow{};
    std::size_t maxMemoryBytes = 64u << 20;
    // Addresses of a host name (only IPv4 when ipv4Only), empty when none.
    std::function<std::vector<std::string>(const std::string& host, bool ipv4Only)> resolve;
    std::function<void(const std::string& text)> alert;

    // The real clock, this machine's addresses and the system resolver.
    static PacEnvironment current();
};

// Runs FindProxyForURLEx when the script defines it, else FindProxyForURL,
// for (url, host). Ok with `result` set, or ScriptFailed / BadResult with
// `error` set.
PacStatus evaluatePac(const std::string& script, const std::string& url, const std::string& host,
                      const PacEnvironment& env, std::string& result, std::string& error);

}  // namespace ndpx::net
