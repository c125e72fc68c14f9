#pragma once
// Proxy settings for the HTTPS client.
//
// - ProxyConfig: the user's own proxy settings. On Linux these are the
//   environment's https_proxy / HTTPS_PROXY / http_proxy / HTTP_PROXY (in
//   that order of preference) and no_proxy / NO_PROXY; there is no
//   automatic-detection flag and no auto-configuration URL in the
//   environment, so both stay off/empty.
// - Proxy lists and bypass lists in the forms an operator writes them.
// - Proxy auto-configuration (PAC): the script is fetched by URL (file:,
//   http:, https:) with a size limit and a time-out, and FindProxyForURL runs
//   in a separate process with a wall-clock limit and a memory limit, so a
//   script that loops, allocates without end or crashes the engine only
//   costs its time limit.
// - Automatic detection of a PAC URL (DHCP/DNS WPAD) is not available on
//   Linux: detectAutoProxyConfigUrl() always answers "none".

#include "net/CancelToken.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::net {

class ProxyConfig {
public:
    // Reads an environment variable; nullopt when unset.
    using EnvReader = std::function<std::optional<std::string>(const char* name)>;

    struct Settings {
        bool autoDetect = false;
        std::string proxy;
        std::string proxyBypass;
        std::string autoConfigUrl;
    };

    ProxyConfig();  // the process environment
    explicit ProxyConfig(EnvReader env);

    // Reads the settings; without `force` only the first call reads. A read
    // that finds an unusable proxy keeps the previous settings.
    void init(bool force = false);

    Settings settings() const;
    bool loaded() const;
    // How many times the settings were read.
    unsigned reads() const;

private:
    EnvReader env_;
    mutable std::mutex mutex_;
    Settings settings_;
    bool loaded_ = false;
    unsigned reads_ = 0;
};

// The proxy for https requests from a proxy list, as a curl proxy URL
// ("http://host:port", "socks5h://host:port"). Accepts "host:port",
// "scheme://[user:pw@]host:port", and per-scheme lists
// "http=a:1;https=b:2;socks=c:3" (https is preferred, then an entry without
// scheme, then http, then socks). nullopt when the list names none.
std::optional<std::string> proxyUrlFromList(const std::string& list);

// Whether `host` bypasses the proxy under a bypass list. Entries are
// separated by ';', ',' or white space and compared without regard to case:
// "*" (everything), "<local>" (host names without a dot), wildcards
// ("*.corp.example", "10.1.*"), ".domain" or "domain" (the domain and its
// subdomains), an address with a prefix length ("10.0.0.0/8", "fd00::/8").
// A ":port" or "scheme://" on an entry is ignored.
bool bypassMatches(const std::string& bypassList, const std::string& host);

// Whether an IPv4 or IPv6 address lies in a prefix ("10.0.0.0/8", "fd00::/8").
bool addressInPrefix(const std::string& address, const std::string& cidr);

// One entry of a FindProxyForURL answer.
struct PacDirective {
    enum class Kind { Direct, Proxy, Socks4, Socks5, Https };
    Kind kind = Kind::Direct;
    std::string hostPort;  // empty for Direct
};
// "PROXY a:1; SOCKS b:2; DIRECT" -> entries; unknown entries are skipped.
std::vector<PacDirective> parsePacResult(const std::string& result);
// The curl proxy URL of an entry; nullopt for Direct and HTTPS proxies
// (which the client does not use).
std::optional<std::string> proxyUrlOf(const PacDirective& directive);

struct PacLimits {
    std::chrono::milliseconds fetchTimeout{10000};
    std::size_t maxScriptBytes = 1u << 20;
    std::chrono::milliseconds runTimeout{3000};
    std::size_t maxMemoryBytes = 64u << 20;
};

// Why a PAC evaluation gave no answer (logged as a number).
enum class PacStatus : std::uint32_t {
    Ok = 0,
    FetchFailed = 1,   // the script could not be fetched
    ScriptFailed = 2,  // it did not compile, threw, or lacks FindProxyForURL
    TimedOut = 3,      // it ran longer than its limit
    BadResult = 4,     // the answer was not a string
    Cancelled = 5,
    SandboxFailed = 6,  // the evaluating process could not be started or died
};
const char* pacStatusName(PacStatus status);

// Runs FindProxyForURL (or FindProxyForURLEx) of `script` for `url` within
// the limits. The URL handed to the script is reduced to scheme, host and
// port for https, so paths and queries never reach a script.
PacStatus runPacScript(const std::string& script, const std::string& url, const PacLimits& limits,
                       CancelToken* cancel, std::string& result);

// Fetches the script at `pacUrl` and runs it for `url`.
PacStatus findProxyWithPac(const std::string& pacUrl, const std::string& url,
                           const PacLimits& limits, CancelToken* cancel, std::string& result);

// The auto-configuration URL found by automatic detection; always empty on
// Linux (no DHCP/DNS WPAD lookup).
std::string detectAutoProxyConfigUrl();

}  // namespace ndpx::net
