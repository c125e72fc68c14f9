// What the PAC helper functions are handed: host names and URLs of requests,
// patterns, masks, addresses and dates from scripts. The first byte picks an
// entry point; the rest are its arguments, separated by NUL bytes. The
// helpers run in the script engine as a script calls them, from a fixed
// script, so nothing here can loop without end; the proxy lists (a script's
// answer, a bypass list, a proxy setting) are parsed directly.

#include "../net/PacScript.h"
#include "net/ProxyConfig.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace ndpx::net;

constexpr const char* kScript = R"JS(
function FindProxyForURL(args, name) {
    return String(this[name].apply(null, args.split('\u0000')));
}
)JS";

constexpr const char* kHelpers[] = {
    "shExpMatch",        "isInNet",      "dnsDomainIs",  "localHostOrDomainIs", "isPlainHostName",
    "dnsDomainLevels",   "weekdayRange", "dateRange",    "timeRange",           "isInNetEx",
    "sortIpAddressList", "convert_addr", "isResolvable", "dnsResolve",
};
enum class Native { PacResult, Bypass, ProxyList, Prefix, Count };
constexpr std::size_t kHelperCount = std::size(kHelpers);

const PacEnvironment& environment() {
    static const PacEnvironment env = [] {
        PacEnvironment e;
        e.myIpAddresses = {"192.0.2.10", "2001:db8::10"};
        // Tuesday 2026-03-03 23:59:30, the same in both zones.
        e.localNow.tm_year = 126;
        e.localNow.tm_mon = 2;
        e.localNow.tm_mday = 3;
        e.localNow.tm_wday = 2;
        e.localNow.tm_hour = 23;
        e.localNow.tm_min = 59;
        e.localNow.tm_sec = 30;
        e.utcNow = e.localNow;
        e.maxMemoryBytes = 16u << 20;
        // No name service while fuzzing: names under .example resolve.
        e.resolve = [](const std::string& host, bool ipv4Only) {
            std::vector<std::string> out;
            if (host.size() > 8 && host.compare(host.size() - 8, 8, ".example") == 0) {
                out.push_back("192.0.2.7");
                if (!ipv4Only) {
                    out.push_back("2001:db8::7");
                }
            }
            return out;
        };
        return e;
    }();
    return env;
}

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find('\0', start);
        parts.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return parts;
        }
        start = end + 1;
    }
}

// '*' any run of characters, '?' any one: the meaning scripts rely on.
bool globMatch(std::string_view text, std::string_view pattern) {
    std::size_t t = 0;
    std::size_t p = 0;
    std::size_t star = std::string_view::npos;
    std::size_t resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') {
        ++p;
    }
    return p == pattern.size();
}

// Text the reference compares: ASCII (one byte, one character) without line
// breaks, which '*' and '?' do not cross, as in the usual helper.
bool comparable(std::string_view text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80 || c == '\n' || c == '\r') {
            return false;
        }
    }
    return true;
}

void runHelper(const char* name, std::string_view args) {
    std::string result;
    std::string error;
    const PacStatus status =
        evaluatePac(kScript, std::string(args), name, environment(), result, error);
    if (std::string_view(name) != "shExpMatch" || status != PacStatus::Ok) {
        return;
    }
    const std::vector<std::string> parts = split(args);
    if (parts.size() == 2 && comparable(args) &&
        (result == "true") != globMatch(parts[0], parts[1])) {
        std::fprintf(stderr, "shExpMatch(\"%s\", \"%s\") gave %s\n", parts[0].c_str(),
                     parts[1].c_str(), result.c_str());
        std::abort();
    }
}

void runNative(Native which, std::string_view args) {
    const std::vector<std::string> parts = split(args);
    const std::string& first = parts[0];
    const std::string& second = parts.size() > 1 ? parts[1] : first;
    switch (which) {
        case Native::PacResult:
            for (const auto& directive : parsePacResult(first)) {
                proxyUrlOf(directive);
            }
            break;
        case Native::Bypass:
            bypassMatches(first, second);
            break;
        case Native::ProxyList:
            proxyUrlFromList(first);
            break;
        case Native::Prefix:
            addressInPrefix(first, second);
            break;
        case Native::Count:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t choice = data[0] % (kHelperCount + static_cast<std::size_t>(Native::Count));
    const std::string_view args(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (choice < kHelperCount) {
        runHelper(kHelpers[choice], args);
    } else {
        runNative(static_cast<Native>(choice - kHelperCount), args);
    }
    return 0;
}
