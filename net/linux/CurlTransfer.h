#pragma once
// What one request of CurlHttpRequest carries while it runs, shared by the
// source files of the class.

#include "net/CurlUtil.h"
#include "net/Handles.h"
#include "net/linux/CurlHttpRequest.h"

#include <chrono>
#include <fstream>
#include <optional>

namespace ndpx::net {

using Clock = std::chrono::steady_clock;

// Everything one request needs while it runs, copied from the object when it
// starts so that setters called meanwhile do not race with it. Owned by the
// thread running the request.
struct CurlHttpRequest::Transfer {
    CurlHttpRequest* owner = nullptr;
    HttpMethod method = HttpMethod::Get;
    std::string url;  // as given
    std::string host;
    std::string fullUrl;  // with the built query

    bool ignoreAll = false;
    bool ignoreName = false;
    bool checkRevocation = false;
    std::string pin;
    std::shared_ptr<certs::CertUtilityInterface> store;
    std::vector<X509Ptr> additional;

    std::string proxyServer;
    std::string proxyBypass;
    std::string proxyUser;
    std::string proxyPassword;
    std::string pacUrl;
    std::shared_ptr<ProxyConfig> userProxy;
    PacLimits pacLimits;
    Timeouts timeouts{};
    std::uint64_t maxResponseSize = 0;
    std::optional<Clock::time_point> overallDeadline;

    // Body.
    bool hasBody = false;
    std::string memoryBody;
    std::ifstream file;
    std::uint64_t totalLength = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t chunkSize = 0;
    std::vector<char> chunk;
    std::size_t chunkPos = 0;

    CurlEasyPtr easy;
    CurlSlistPtr headers;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    std::shared_ptr<CancelToken> cancel;

    // Progress.
    bool appConnected = false;
    bool headersDone = false;
    Clock::time_point lastActivity{};
    bool refusedByPin = false;    // SendingRequest said no (it logged why)
    bool secureFailure = false;   // the certificate checks said no
    bool stalled = false;         // no bytes moved within the phase's share
    bool overallExpired = false;  // the synchronous budget ran out
    bool bodyTooLarge = false;
    bool uploadFailed = false;
};

// The URL's own query parameters joined with the configured ones.
struct CurlHttpRequest::Query {
    bool built = false;
    HeaderMap params;
    std::string text;  // "?a=1&b=2&", empty without parameters
};

// The machine's store, fetching the CRLs it lacks.
std::shared_ptr<certs::CertUtilityInterface> fetchingMachineStore();

}  // namespace ndpx::net
