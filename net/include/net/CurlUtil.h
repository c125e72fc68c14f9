#pragma once
// libcurl helpers shared by the HTTPS client, the PAC fetch and the chain
// probe: owners of curl handles, one-time library set-up, URL parsing, and a
// driver that runs one transfer so that cancelling it wakes it at once.

#include "net/CancelToken.h"
#include "net/UrlText.h"

#include <curl/curl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ndpx::net {

struct CurlEasyFree {
    void operator()(CURL* p) const { curl_easy_cleanup(p); }
};
struct CurlMultiFree {
    void operator()(CURLM* p) const { curl_multi_cleanup(p); }
};
struct CurlSlistFree {
    void operator()(curl_slist* p) const { curl_slist_free_all(p); }
};
struct CurlUrlFree {
    void operator()(CURLU* p) const { curl_url_cleanup(p); }
};
using CurlEasyPtr = std::unique_ptr<CURL, CurlEasyFree>;
using CurlMultiPtr = std::unique_ptr<CURLM, CurlMultiFree>;
using CurlSlistPtr = std::unique_ptr<curl_slist, CurlSlistFree>;
using CurlUrlPtr = std::unique_ptr<CURLU, CurlUrlFree>;

// curl_global_init, once per process. False when it failed.
bool ensureCurlInitialized();
// Whether libcurl's TLS backend is OpenSSL (our certificate checks need it).
bool curlUsesOpenSsl();

struct ParsedUrl {
    std::string scheme;      // lower case
    std::string host;        // without the brackets of an IPv6 literal
    std::uint16_t port = 0;  // the URL's port or the scheme's default
    std::string path;        // "/" at least
    std::string query;       // without '?', empty when none
};
// nullopt when the text is not an absolute URL with a host (file URLs have
// an empty host).
std::optional<ParsedUrl> parseUrl(const std::string& url);

// Drives `easy` to its end. `tick` runs after every round of work; it may
// shorten the next wait and returns CURLE_OK to go on or a code to stop with.
// Cancelling `cancel` stops the transfer within a round, answering
// CURLE_ABORTED_BY_CALLBACK.
using TransferTick = std::function<CURLcode(std::chrono::milliseconds& nextWait)>;
CURLcode runTransfer(CURL* easy, CancelToken* cancel, const TransferTick& tick);

// Fetches a small text resource (file:, http: or https:), never through a
// proxy, within `timeout` and at most `maxBytes`. False with `error` set.
bool fetchText(const std::string& url, std::chrono::milliseconds timeout, std::size_t maxBytes,
               CancelToken* cancel, std::string& body, std::string& error);

}  // namespace ndpx::net
