// CurlHttpRequest's set-up of a request: the settings copied, the URL with its
// query, the body, the headers and the curl options.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <filesystem>

namespace ndpx::net {

namespace {

constexpr const char* kUserAgent = "BWAgent";

bool hasLineBreak(const std::string& s) {
    return s.find_first_of("\r\n") != std::string::npos;
}

std::string escape(CURL* easy, const std::string& text) {
    char* out = curl_easy_escape(easy, text.data(), static_cast<int>(text.size()));
    if (out == nullptr) {
        return {};
    }
    std::string result(out);
    curl_free(out);
    return result;
}

std::string unescape(CURL* easy, const std::string& text) {
    int len = 0;
    char* out = curl_easy_unescape(easy, text.data(), static_cast<int>(text.size()), &len);
    if (out == nullptr) {
        return text;
    }
    std::string result(out, static_cast<std::size_t>(len));
    curl_free(out);
    return result;
}

// The URL's own parameters join the configured ones (for the later requests
// too). Answers the query text, "?a=1&b=2&", empty without parameters.
std::string mergeQuery(CURL* easy, const std::string& urlQuery, HeaderMap& params) {
    if (!urlQuery.empty()) {
        std::size_t start = 0;
        while (start <= urlQuery.size()) {
            const std::size_t end = std::min(urlQuery.find('&', start), urlQuery.size());
            const std::string item = urlQuery.substr(start, end - start);
            if (!item.empty()) {
                const std::size_t eq = item.find('=');
                params[unescape(easy, item.substr(0, eq))] =
                    eq == std::string::npos ? std::string() : unescape(easy, item.substr(eq + 1));
            }
            start = end + 1;
        }
    }
    std::string text;
    if (!params.empty()) {
        text = "?";
        for (const auto& [name, value] : params) {
            text += escape(easy, name) + "=" + escape(easy, value) + "&";
        }
    }
    return text;
}

// The URL with the query replaced and no fragment.
bool fullUrlOf(const std::string& url, const std::string& queryText, std::string& fullUrl) {
    CurlUrlPtr full(curl_url());
    char* text = nullptr;
    if (!full || curl_url_set(full.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_set(full.get(), CURLUPART_QUERY,
                     queryText.empty() ? nullptr : queryText.c_str() + 1, 0) != CURLUE_OK ||
        curl_url_set(full.get(), CURLUPART_FRAGMENT, nullptr, 0) != CURLUE_OK ||
        curl_url_get(full.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to parse url");
        return false;
    }
    fullUrl = text;
    curl_free(text);
    return true;
}

// Headers, one "name: value" line each.
CurlSlistPtr buildHeaders(const HeaderMap& headers) {
    curl_slist* list = nullptr;
    bool contentType = false;
    for (const auto& [name, value] : headers) {
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) ||
            name.find(':') != std::string::npos) {
            curl_slist_free_all(list);
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Invalid request header");
            return nullptr;
        }
        contentType = contentType || curl_strequal(name.c_str(), "Content-Type") != 0;
        std::string line = name;
        line += value.empty() ? ";" : ": ";
        line += value;
        curl_slist* next = curl_slist_append(list, line.c_str());
        if (next == nullptr) {
            curl_slist_free_all(list);
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Out of memory");
            return nullptr;
        }
        list = next;
    }
    CurlSlistPtr out(list);
    // No "Expect: 100-continue" round trip, and no content type we were not asked for.
    for (const char* line : {"Expect:", contentType ? nullptr : "Content-Type:"}) {
        if (line != nullptr) {
            curl_slist* head = out.release();
            curl_slist* next = curl_slist_append(head, line);
            out.reset(next != nullptr ? next : head);
        }
    }
    return out;
}

}  // namespace

// Any failure here happens before network traffic and leaves the object
// idle. The transfer is built without the lock, from a copy of the settings.
std::unique_ptr<CurlHttpRequest::Transfer> CurlHttpRequest::prepare(HttpMethod method,
                                                                    const std::string& url) {
    if (url.empty()) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Empty url");
        return nullptr;
    }
    const auto parsed = parseUrl(url);
    if (!parsed) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to parse url");
        return nullptr;
    }
    if (parsed->scheme != "https") {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Only https is supported");
        return nullptr;
    }
    Config config;
    bool inProgress = false;
    {
        CORE::MutexLock lock(shared_->mutex);
        inProgress = busy();
        if (!inProgress) {
            config = config_;
        }
    }
    if (inProgress) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): A request is already in progress");
        return nullptr;
    }
    if (!curlUsesOpenSsl()) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): libcurl does not use OpenSSL for TLS");
        return nullptr;
    }

    Query query;
    auto t = makeTransfer(method, url, *parsed, std::move(config), query);
    CORE::MutexLock lock(shared_->mutex);
    if (query.built) {
        config_.queryParams = std::move(query.params);
        queryString_ = std::move(query.text);
    }
    if (!t) {
        return nullptr;
    }
    // Another thread may have started a request meanwhile.
    if (busy()) {
        lock.unlock();
        MFW_LOG(4, "CurlHttpRequest::performAsync(): A request is already in progress");
        return nullptr;
    }
    cancel_ = std::make_shared<CancelToken>();
    t->cancel = cancel_;
    statusCode_ = 0;
    responseHeaders_.clear();
    responseBody_.clear();
    requestComplete_ = false;
    lastProxy_.clear();
    uploadChunks_ = 0;
    shared_->state = State::Running;
    ++shared_->generation;
    return t;
}

// A request runs while another is running, or while another thread's
// completion callback runs; the callback itself may start the next one.
bool CurlHttpRequest::busy() const {
    const State state = shared_->state;
    return state == State::Running ||
           (state == State::Completing && shared_->completingThread != std::this_thread::get_id());
}

std::unique_ptr<CurlHttpRequest::Transfer> CurlHttpRequest::makeTransfer(HttpMethod method,
                                                                         const std::string& url,
                                                                         const ParsedUrl& parsed,
                                                                         Config config,
                                                                         Query& query) {
    auto t = std::make_unique<Transfer>();
    t->owner = this;
    t->method = method;
    t->url = url;
    t->host = parsed.host;
    t->easy.reset(curl_easy_init());
    if (!t->easy) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): curl_easy_init failed");
        return nullptr;
    }
    query.params = std::move(config.queryParams);
    query.text = mergeQuery(t->easy.get(), parsed.query, query.params);
    query.built = true;
    if (!fullUrlOf(url, query.text, t->fullUrl)) {
        return nullptr;
    }

    // Body, for POST and PUT only.
    if (method == HttpMethod::Post || method == HttpMethod::Put) {
        t->hasBody = true;
        if (!config.uploadFilePath.empty()) {
            std::error_code ec;
            const auto size = std::filesystem::file_size(config.uploadFilePath, ec);
            if (ec) {
                MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to read the size of %s: %s",
                        config.uploadFilePath.c_str(), ec.message().c_str());
                return nullptr;
            }
            t->file.open(config.uploadFilePath, std::ios::binary);
            if (!t->file) {
                MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to open %s",
                        config.uploadFilePath.c_str());
                return nullptr;
            }
            t->totalLength = size;
            t->chunkSize = std::max<std::uint64_t>(1, config.uploadChunkSize);
        } else {
            t->memoryBody = std::move(config.requestBody);
            t->totalLength = t->memoryBody.size();
        }
        if (t->totalLength > config.maxRequestSize) {
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Request data size is too large");
            return nullptr;
        }
    }

    t->headers = buildHeaders(config.headers);
    if (!t->headers) {
        return nullptr;
    }

    t->ignoreAll = config.ignoreAllCertErrors;
    t->ignoreName = config.ignoreNameMismatch;
    t->checkRevocation = config.checkRevocation;
    t->pin = std::move(config.pinnedThumbprint);
    t->store = machineStore_;
    for (const auto& pem : config.additionalPems) {
        for (auto& cert : certs::x509sFromPemBundle(pem)) {
            t->additional.push_back(std::move(cert));
        }
    }
    t->proxyServer = std::move(config.proxyServer);
    t->proxyBypass = std::move(config.proxyBypass);
    t->proxyUser = std::move(config.proxyUser);
    t->proxyPassword = std::move(config.proxyPassword);
    t->pacUrl = std::move(config.pacUrl);
    t->userProxy = std::move(config.userProxy);
    t->pacLimits = config.pacLimits;
    t->timeouts = computeTimeouts(config.timeoutMs);
    t->maxResponseSize = config.maxResponseSize;

    if (!setUpTransfer(*t)) {
        return nullptr;
    }
    return t;
}

bool CurlHttpRequest::setUpTransfer(Transfer& t) {
    CURL* h = t.easy.get();
    bool ok = true;
    auto set = [&ok](CURLcode rc) { ok = ok && rc == CURLE_OK; };
    set(curl_easy_setopt(h, CURLOPT_URL, t.fullUrl.c_str()));
    set(curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https"));
    set(curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L));
    set(curl_easy_setopt(h, CURLOPT_USERAGENT, kUserAgent));
    set(curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L));
    set(curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)));
    set(curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                         static_cast<long>(t.timeouts.resolveMs + t.timeouts.connectMs)));
    set(curl_easy_setopt(h, CURLOPT_ERRORBUFFER, t.errorBuffer));
    // Our checks decide trust; OpenSSL's verification is replaced, curl's own
    // name check is off (the checks include the name).
    set(curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L));
    set(curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 0L));
    // Nor does curl's CA bundle take part: loading it would parse every
    // system root again for each request, unused.
    set(curl_easy_setopt(h, CURLOPT_CAINFO, nullptr));
    set(curl_easy_setopt(h, CURLOPT_CAPATH, nullptr));
    set(curl_easy_setopt(h, CURLOPT_SSL_SESSIONID_CACHE, 0L));
    set(curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, &CurlHttpRequest::sslContextCallback));
    set(curl_easy_setopt(h, CURLOPT_SSL_CTX_DATA, &t));
    set(curl_easy_setopt(h, CURLOPT_HTTPHEADER, t.headers.get()));
    set(curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, &CurlHttpRequest::headerCallback));
    set(curl_easy_setopt(h, CURLOPT_HEADERDATA, &t));
    set(curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &CurlHttpRequest::writeCallback));
    set(curl_easy_setopt(h, CURLOPT_WRITEDATA, &t));
    set(curl_easy_setopt(h, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L));
    set(curl_easy_setopt(h, CURLOPT_NOPROXY, ""));
    set(curl_easy_setopt(h, CURLOPT_PROXY, ""));
    switch (t.method) {
        case HttpMethod::Get:
            set(curl_easy_setopt(h, CURLOPT_HTTPGET, 1L));
            break;
        case HttpMethod::Post:
            set(curl_easy_setopt(h, CURLOPT_POST, 1L));
            set(curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                                 static_cast<curl_off_t>(t.totalLength)));
            break;
        case HttpMethod::Put:
            set(curl_easy_setopt(h, CURLOPT_UPLOAD, 1L));
            set(curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE,
                                 static_cast<curl_off_t>(t.totalLength)));
            break;
        case HttpMethod::Delete:
            set(curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, "DELETE"));
            break;
    }
    if (t.hasBody) {
        set(curl_easy_setopt(h, CURLOPT_READFUNCTION, &CurlHttpRequest::readCallback));
        set(curl_easy_setopt(h, CURLOPT_READDATA, &t));
    }
    if (!ok) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to set up the request");
    }
    return ok;
}

}  // namespace ndpx::net
