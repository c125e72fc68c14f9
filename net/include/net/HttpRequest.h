#pragma once
// The module's HTTPS client seam. Callers (pairing, certificate renewal)
// create a fresh request object per exchange, configure it through the
// setters and call one perform operation. Only https URLs are accepted.
//
// Server checks, made during the TLS handshake and so before any byte of the
// request leaves the machine:
// - without a pinned thumbprint: the chain must lead to a trusted root, be
//   valid for server authentication and now, and name the host (unless
//   ignoreNameMismatch); with enableRevocationCheck also not be revoked;
// - with a pinned thumbprint: a trusted chain passes as above (the pin is not
//   compared); a chain with an unknown root passes only when the SHA-256 of
//   one of its certificates' PEM text, as "AB:CD:..." (upper case), equals
//   the pin exactly. Once an object's chain has passed this way it is not
//   checked again for later requests through the same object.
// - ignoreAllCertErrors skips every check.
//
// Completion rules:
// - An asynchronous perform that returns false never calls its callback
//   (bad URL, not https, no callback, body too large, a request already
//   running). One that returns true calls it exactly once, on a thread of the
//   request object, with the object and a copy of the body read so far,
//   whether the exchange succeeded or not; the callback decides by
//   getResponseCode() / isSuccess(). The callback may start the next request
//   on the same object.
// - cancelRequest() aborts the running request promptly; a cancelled request
//   does not call its callback, and once cancelRequest() returns no callback
//   of this object is running.
// - Destroying the object cancels a running request the same way.
// - The synchronous forms run the exchange on the caller's thread within the
//   overall time budget. getSync/deleteSync return true when the exchange
//   reached its end in time without a transport or TLS failure, whatever the
//   status (look at getResponseCode()); postSync/putSync/putSyncReversed
//   return true only when, in addition, the status is 2xx.
//
// Time budget: setTimeout(seconds) sets the overall budget (default 150 s),
// shared out as resolve 20 %, connect (with the TLS handshake) 40 %, send
// 20 % and receive 20 %. Send and receive are the longest the exchange may go
// without moving a byte in that phase; the synchronous forms also stop at the
// overall budget.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::net {

enum class HttpMethod : int { Get = 0, Post = 1, Put = 2, Delete = 3 };
// "GET", "POST", "PUT", "DELETE".
const char* methodName(HttpMethod method);

// Body content types; each but None sets the "Content-Type" header.
enum class ContentType : int {
    None = 0,
    Css = 1,
    Csv = 2,
    Html = 3,
    Json = 4,
    Text = 5,
    Xml = 6,
    OctetStream = 7,
    Zip = 8,
};
// The header value, or nullptr for None and unknown codes.
const char* contentTypeValue(ContentType type);

using HeaderMap = std::map<std::string, std::string>;

// 200 to 299.
inline bool isSuccessStatus(std::uint32_t status) {
    return status >= 200 && status <= 299;
}

class HttpRequest {
public:
    using Callback = std::function<void(HttpRequest* request, std::string body)>;

    static constexpr std::uint32_t kDefaultTimeoutMs = 150000;
    static constexpr double kResolveShare = 0.2;
    static constexpr double kConnectShare = 0.4;
    static constexpr double kSendShare = 0.2;
    static constexpr double kReceiveShare = 0.2;

    virtual ~HttpRequest() = default;

    virtual bool getSync(const std::string& url, std::string& response) = 0;
    virtual bool postSync(ContentType type, const std::string& url, const std::string& body,
                          std::string& response) = 0;
    virtual bool putSync(ContentType type, const std::string& url, const std::string& body,
                         std::string& response) = 0;
    virtual bool putSyncReversed(ContentType type, const std::string& url, std::string& response,
                                 const std::string& body) = 0;
    virtual bool deleteSync(const std::string& url, std::string& response) = 0;

    virtual bool getAsync(const std::string& url, Callback callback) = 0;
    virtual bool postAsync(ContentType type, const std::string& url, const std::string& body,
                           Callback callback) = 0;
    // Sends the first `length` bytes of `buffer`; refuses a shorter buffer.
    virtual bool putAsync(ContentType type, const std::string& url,
                          const std::vector<std::uint8_t>& buffer, std::size_t length,
                          Callback callback) = 0;
    virtual bool putStringAsync(ContentType type, const std::string& url, const std::string& body,
                                Callback callback) = 0;
    // Streams the body from the file, read in chunks.
    virtual bool putFileAsync(ContentType type, const std::string& url, const std::string& filePath,
                              Callback callback) = 0;

    virtual void ignoreAllCertErrors() = 0;
    virtual void ignoreNameMismatch() = 0;
    // Extra certificates (PEM texts) offered to chain building as possible
    // intermediates; they are never trusted by themselves.
    virtual void setAdditionalStore(std::vector<std::string> certificatesPem) = 0;
    virtual void enableRevocationCheck() = 0;
    // Replace the request headers / query parameters (map order is kept).
    virtual void setHeaders(const HeaderMap& headers) = 0;
    virtual void setQueryParams(const HeaderMap& params) = 0;
    virtual void setPinnedThumbprint(const std::string& thumbprint) = 0;
    virtual void setTimeout(std::uint32_t seconds) = 0;
    // Explicit proxy ("host:port", "http://host:port", or "https=host:port;..."),
    // its bypass list ("*.corp;10.*;<local>") and credentials.
    virtual void setProxyServer(const std::string& server) = 0;
    virtual void setProxyBypass(const std::string& bypass) = 0;
    virtual void setProxyCredentials(const std::string& user, const std::string& password) = 0;
    // Proxy auto-configuration script (file://, http:// or https://).
    virtual void setPacUrl(const std::string& url) = 0;

    virtual void cancelRequest() = 0;

    virtual std::uint32_t getResponseCode() = 0;
    // The raw response header lines (status line first), CRLF-separated.
    virtual std::string getResponseHeaders() = 0;
    virtual std::string getResponseBody() = 0;
    virtual bool isSuccess() = 0;
};

using HttpRequestPtr = std::shared_ptr<HttpRequest>;
// Creates a fresh request object per exchange.
using HttpRequestFactory = std::function<HttpRequestPtr()>;

}  // namespace ndpx::net
