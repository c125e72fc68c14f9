#include "net/ProxyConfig.h"

#include "net/CurlUtil.h"
#include "net/HostAddresses.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace ndpx::net {

namespace {

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string trim(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::vector<std::string> split(const std::string& s, const char* separators) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < s.size()) {
        const std::size_t end = s.find_first_of(separators, start);
        const std::string item = trim(s.substr(start, end - start));
        if (!item.empty()) {
            out.push_back(item);
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return out;
}

std::optional<std::string> envValue(const ProxyConfig::EnvReader& env,
                                    std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (auto value = env(name); value && !trim(*value).empty()) {
            return trim(*value);
        }
    }
    return std::nullopt;
}

// A proxy address as a curl proxy URL with an explicit port. nullopt when it
// names no host or uses a scheme the client does not speak to proxies.
std::optional<std::string> normalizeProxy(const std::string& entry, const char* defaultScheme) {
    std::string text = entry;
    std::string scheme;
    const std::size_t sep = text.find("://");
    if (sep != std::string::npos) {
        scheme = lower(text.substr(0, sep));
        text = text.substr(sep + 3);
    } else {
        scheme = defaultScheme;
    }
    if (scheme == "socks") {
        scheme = "socks4a";
    }
    if (scheme != "http" && scheme != "socks4" && scheme != "socks4a" && scheme != "socks5" &&
        scheme != "socks5h") {
        return std::nullopt;
    }
    // Drop a path; keep user information and host:port.
    text = text.substr(0, text.find_first_of("/?#"));
    const std::size_t at = text.rfind('@');
    const std::string hostPort = at == std::string::npos ? text : text.substr(at + 1);
    if (hostPort.empty() || hostPort.front() == ':') {
        return std::nullopt;
    }
    const std::size_t close = hostPort.rfind(']');
    const std::size_t colon = hostPort.rfind(':');
    const bool hasPort =
        colon != std::string::npos && (close == std::string::npos || colon > close);
    std::string url = scheme + "://" + text;
    if (!hasPort) {
        url += scheme == "http" ? ":80" : ":1080";
    }
    const auto parsed = parseUrl(url);
    if (!parsed || parsed->host.empty()) {
        return std::nullopt;
    }
    return url;
}

// Shell-style match of '*' and '?'.
bool wildcardMatch(const char* pattern, const char* text) {
    const char* star = nullptr;
    const char* resume = nullptr;
    while (*text != '\0') {
        if (*pattern == '?' || *pattern == *text) {
            ++pattern;
            ++text;
        } else if (*pattern == '*') {
            star = pattern++;
            resume = text;
        } else if (star != nullptr) {
            pattern = star + 1;
            text = ++resume;
        } else {
            return false;
        }
    }
    while (*pattern == '*') {
        ++pattern;
    }
    return *pattern == '\0';
}

bool entryMatches(std::string entry, const std::string& host) {
    if (const std::size_t sep = entry.find("://"); sep != std::string::npos) {
        entry = entry.substr(sep + 3);
    }
    if (entry == "*") {
        return true;
    }
    if (entry == "<local>") {
        return host.find('.') == std::string::npos && host.find(':') == std::string::npos;
    }
    if (entry.find('/') != std::string::npos) {
        std::string prefix = entry;
        if (prefix.front() == '[') {
            const std::size_t close = prefix.find(']');
            prefix = close == std::string::npos
                         ? prefix
                         : prefix.substr(1, close - 1) + prefix.substr(prefix.find('/'));
        }
        return addressInPrefix(host, prefix);
    }
    // Drop a ":port" (not the colons of a bare IPv6 address).
    if (entry.front() == '[') {
        entry = entry.substr(1, entry.find(']') - 1);
    } else if (std::count(entry.begin(), entry.end(), ':') == 1) {
        entry = entry.substr(0, entry.find(':'));
    }
    if (entry.empty()) {
        return false;
    }
    if (entry.find_first_of("*?") != std::string::npos) {
        return wildcardMatch(entry.c_str(), host.c_str());
    }
    if (entry.front() == '.') {
        return host == entry.substr(1) ||
               (host.size() > entry.size() &&
                host.compare(host.size() - entry.size(), entry.size(), entry) == 0);
    }
    return host == entry || (host.size() > entry.size() + 1 &&
                             host.compare(host.size() - entry.size(), entry.size(), entry) == 0 &&
                             host[host.size() - entry.size() - 1] == '.');
}

}  // namespace

bool addressInPrefix(const std::string& address, const std::string& cidr) {
    const std::size_t slash = cidr.find('/');
    std::array<unsigned char, 16> a{};
    std::array<unsigned char, 16> p{};
    bool aV4 = false;
    bool pV4 = false;
    if (slash == std::string::npos || !parseAddress(address, a, aV4) ||
        !parseAddress(cidr.substr(0, slash), p, pV4) || aV4 != pV4) {
        return false;
    }
    char* end = nullptr;
    const char* digits = cidr.c_str() + slash + 1;
    const long bits = std::strtol(digits, &end, 10);
    if (end == digits || *end != '\0' || bits < 0 || bits > (pV4 ? 32 : 128)) {
        return false;
    }
    long remaining = bits + (pV4 ? 96 : 0);
    for (std::size_t i = 0; i < a.size() && remaining > 0; ++i, remaining -= 8) {
        const unsigned mask = remaining >= 8 ? 0xffu : (0xffu << (8 - remaining)) & 0xffu;
        if ((a[i] & mask) != (p[i] & mask)) {
            return false;
        }
    }
    return true;
}

ProxyConfig::ProxyConfig()
    : ProxyConfig([](const char* name) -> std::optional<std::string> {
          const char* value = std::getenv(name);
          return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
      }) {}

ProxyConfig::ProxyConfig(EnvReader env) : env_(std::move(env)) {}

void ProxyConfig::init(bool force) {
    std::lock_guard lock(mutex_);
    if (loaded_ && !force) {
        return;
    }
    loaded_ = true;
    ++reads_;
    const auto proxy = envValue(env_, {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY"});
    if (proxy && !proxyUrlFromList(*proxy)) {
        MFW_LOG(3, "ProxyConfig::init(): Unable to find IE Proxy Config: %s",
                ("the environment's proxy is not a usable proxy address: " + redactUrl(*proxy))
                    .c_str());
        return;
    }
    settings_.autoDetect = false;
    settings_.autoConfigUrl.clear();
    settings_.proxy = proxy.value_or(std::string());
    settings_.proxyBypass = envValue(env_, {"no_proxy", "NO_PROXY"}).value_or(std::string());
    MFW_LOG(0,
            "ProxyConfig::init(): Found IE proxy settings. "
            "auto-detect=%d,auto-config-url=%s,proxy=%s,proxyBypass=%s",
            settings_.autoDetect ? 1 : 0, redactUrl(settings_.autoConfigUrl).c_str(),
            redactUrl(settings_.proxy).c_str(), settings_.proxyBypass.c_str());
}

ProxyConfig::Settings ProxyConfig::settings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

bool ProxyConfig::loaded() const {
    std::lock_guard lock(mutex_);
    return loaded_;
}

unsigned ProxyConfig::reads() const {
    std::lock_guard lock(mutex_);
    return reads_;
}

std::optional<std::string> proxyUrlFromList(const std::string& list) {
    std::optional<std::string> https;
    std::optional<std::string> plain;
    std::optional<std::string> http;
    std::optional<std::string> socks;
    for (const auto& entry : split(list, "; \t\r\n")) {
        const std::size_t eq = entry.find('=');
        const std::size_t sep = entry.find("://");
        if (eq != std::string::npos && (sep == std::string::npos || eq < sep)) {
            const std::string key = lower(entry.substr(0, eq));
            const std::string value = trim(entry.substr(eq + 1));
            if (key == "https" && !https) {
                https = normalizeProxy(value, "http");
            } else if (key == "http" && !http) {
                http = normalizeProxy(value, "http");
            } else if (key == "socks" && !socks) {
                socks = normalizeProxy(value, "socks4a");
            }
        } else if (!plain) {
            plain = normalizeProxy(entry, "http");
        }
    }
    for (const auto* choice : {&https, &plain, &http, &socks}) {
        if (*choice) {
            return *choice;
        }
    }
    return std::nullopt;
}

bool bypassMatches(const std::string& bypassList, const std::string& hostName) {
    std::string host = lower(hostName);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty()) {
        return false;
    }
    for (const auto& entry : split(lower(bypassList), ";, \t\r\n")) {
        if (entryMatches(entry, host)) {
            return true;
        }
    }
    return false;
}

std::vector<PacDirective> parsePacResult(const std::string& result) {
    std::vector<PacDirective> out;
    for (const auto& item : split(result, ";")) {
        const std::size_t space = item.find_first_of(" \t");
        const std::string keyword = lower(item.substr(0, space));
        const std::string target = space == std::string::npos ? "" : trim(item.substr(space));
        PacDirective d;
        if (keyword == "direct") {
            out.push_back(d);
            continue;
        }
        if (target.empty()) {
            continue;
        }
        if (keyword == "proxy" || keyword == "http") {
            d.kind = PacDirective::Kind::Proxy;
        } else if (keyword == "socks" || keyword == "socks4") {
            d.kind = PacDirective::Kind::Socks4;
        } else if (keyword == "socks5") {
            d.kind = PacDirective::Kind::Socks5;
        } else if (keyword == "https") {
            d.kind = PacDirective::Kind::Https;
        } else {
            continue;
        }
        d.hostPort = target;
        out.push_back(std::move(d));
    }
    return out;
}

std::optional<std::string> proxyUrlOf(const PacDirective& directive) {
    switch (directive.kind) {
        case PacDirective::Kind::Proxy:
            return normalizeProxy(directive.hostPort, "http");
        case PacDirective::Kind::Socks4:
            return normalizeProxy(directive.hostPort, "socks4a");
        case PacDirective::Kind::Socks5:
            return normalizeProxy(directive.hostPort, "socks5h");
        case PacDirective::Kind::Direct:
        case PacDirective::Kind::Https:
            break;
    }
    return std::nullopt;
}

const char* pacStatusName(PacStatus status) {
    switch (status) {
        case PacStatus::Ok:
            return "ok";
        case PacStatus::FetchFailed:
            return "the script could not be fetched";
        case PacStatus::ScriptFailed:
            return "the script failed";
        case PacStatus::TimedOut:
            return "the script ran out of time";
        case PacStatus::BadResult:
            return "the script gave no usable answer";
        case PacStatus::Cancelled:
            return "cancelled";
        case PacStatus::SandboxFailed:
            return "the script engine failed";
    }
    return "unknown";
}

PacStatus findProxyWithPac(const std::string& pacUrl, const std::string& url,
                           const PacLimits& limits, CancelToken* cancel, std::string& result) {
    result.clear();
    std::string script;
    std::string error;
    if (!fetchText(pacUrl, limits.fetchTimeout, limits.maxScriptBytes, cancel, script, error)) {
        if (cancel != nullptr && cancel->cancelled()) {
            return PacStatus::Cancelled;
        }
        MFW_LOG(3, "ProxyConfig::findProxyWithPac(): Unable to fetch the PAC script %s: %s",
                redactUrl(pacUrl).c_str(), error.c_str());
        return PacStatus::FetchFailed;
    }
    return runPacScript(script, url, limits, cancel, result);
}

std::string detectAutoProxyConfigUrl() {
    MFW_LOG(0,
            "ProxyConfig::detectAutoProxyConfigUrl(): Automatic proxy detection is not "
            "available on this platform");
    return {};
}

}  // namespace ndpx::net
