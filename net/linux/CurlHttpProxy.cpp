// CurlHttpRequest's choice of proxy for a request.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"

#include <mfw/moduleLog.h>

namespace ndpx::net {

std::string CurlHttpRequest::getProxyURL(Transfer& t) {
    std::string server;
    std::string bypass;
    bool named = false;
    if (!t.proxyServer.empty() && t.pacUrl.empty()) {
        server = t.proxyServer;
        bypass = t.proxyBypass;
        named = true;
    } else {
        std::string pac = t.pacUrl;
        if (pac.empty()) {
            pac = detectAutoProxyConfigUrl();
        }
        if (pac.empty()) {
            t.userProxy->init();
            pac = t.userProxy->settings().autoConfigUrl;
        }
        if (!pac.empty()) {
            std::string answer;
            PacStatus status = findProxyWithPac(pac, t.url, t.pacLimits, t.cancel.get(), answer);
            if (status == PacStatus::Cancelled) {
                return {};
            }
            std::optional<std::string> proxy;
            bool direct = false;
            if (status == PacStatus::Ok) {
                for (const auto& directive : parsePacResult(answer)) {
                    if (directive.kind == PacDirective::Kind::Direct) {
                        direct = true;
                        break;
                    }
                    if ((proxy = proxyUrlOf(directive))) {
                        break;
                    }
                }
                if (!direct && !proxy) {
                    status = PacStatus::BadResult;
                }
            }
            if (status == PacStatus::Ok) {
                MFW_LOG(1, "CurlHttpRequest::getProxyURL(): Ran PAC file. Proxy access type: %d",
                        proxy ? 3 : 1);
                if (proxy) {
                    server = *proxy;
                    named = true;
                }
            } else {
                MFW_LOG(3,
                        "CurlHttpRequest::getProxyURL(): Unable to find proxy with given pac "
                        "file: 0x%x",
                        static_cast<unsigned>(status));
            }
        }
        if (!named && !t.proxyServer.empty()) {
            MFW_LOG(1, "CurlHttpRequest::getProxyURL(): Falling back to provided proxy server");
            server = t.proxyServer;
            bypass = t.proxyBypass;
            named = true;
        }
        if (!named) {
            t.userProxy->init();
            const auto user = t.userProxy->settings();
            if (!user.autoDetect && !user.proxy.empty()) {
                server = user.proxy;
                bypass = user.proxyBypass;
                named = true;
            }
        }
    }
    if (!named) {
        return {};
    }
    if (bypassMatches(bypass, t.host)) {
        MFW_LOG(1, "CurlHttpRequest::getProxyURL(): %s is on the proxy bypass list",
                t.host.c_str());
        return {};
    }
    const auto url = proxyUrlFromList(server);
    if (!url) {
        MFW_LOG(3, "CurlHttpRequest::getProxyURL(): Unable to use the proxy %s",
                redactUrl(server).c_str());
        return {};
    }
    return *url;
}

}  // namespace ndpx::net
