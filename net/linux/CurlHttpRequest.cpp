#include "net/linux/CurlHttpRequest.h"

#include "certs/linux/OpenSslCertStore.h"
#include "net/CurlUtil.h"
#include "net/Handles.h"
#include "net/HashGenerator.h"

#include <mfw/moduleLog.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

namespace ndpx::net {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUserAgent = "BWAgent";
constexpr auto kCancelWait = std::chrono::milliseconds(5000);

constexpr const char* kContentTypes[] = {
    nullptr,
    "text/css",
    "text/csv",
    "text/html",
    "application/json",
    "text/plain",
    "text/xml",
    "application/octet-stream",
    "application/zip",
};

std::uint32_t share(std::uint32_t total, double fraction) {
    return std::max<std::uint32_t>(1, static_cast<std::uint32_t>(std::llround(total * fraction)));
}

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

}  // namespace

const char* methodName(HttpMethod method) {
    switch (method) {
        case HttpMethod::Get:
            return "GET";
        case HttpMethod::Post:
            return "POST";
        case HttpMethod::Put:
            return "PUT";
        case HttpMethod::Delete:
            return "DELETE";
    }
    return "GET";
}

const char* contentTypeValue(ContentType type) {
    const auto code = static_cast<int>(type);
    if (code < 0 || code >= static_cast<int>(std::size(kContentTypes))) {
        return nullptr;
    }
    return kContentTypes[code];
}

HttpRequestFactory curlHttpRequestFactory() {
    return [] { return std::make_shared<CurlHttpRequest>(); };
}

namespace {

// The cancel token of the request whose server checks run on this thread:
// a CRL fetch the store makes for them ends when the request is cancelled.
thread_local CancelToken* t_checkingCancel = nullptr;

class CheckingRequest {
public:
    explicit CheckingRequest(CancelToken* cancel) : previous_(t_checkingCancel) {
        t_checkingCancel = cancel;
    }
    ~CheckingRequest() { t_checkingCancel = previous_; }
    CheckingRequest(const CheckingRequest&) = delete;
    CheckingRequest& operator=(const CheckingRequest&) = delete;

private:
    CancelToken* previous_;
};

}  // namespace

certs::OpenSslCertStore::CrlFetcher crlFetcher() {
    return [](const std::string& url, std::string& crl, std::string& error) {
        constexpr auto kTimeout = std::chrono::seconds(15);
        constexpr std::size_t kMaxBytes = 16u << 20;
        return fetchText(url, kTimeout, kMaxBytes, t_checkingCancel, crl, error);
    };
}

namespace {

// The machine's store, fetching the CRLs it lacks.
std::shared_ptr<certs::CertUtilityInterface> fetchingMachineStore() {
    certs::OpenSslCertStore::Options options;
    options.crlFetcher = crlFetcher();
    return std::make_shared<certs::OpenSslCertStore>(std::move(options));
}

}  // namespace

HttpRequestFactory curlHttpRequestFactory(std::shared_ptr<certs::CertUtilityInterface> store) {
    return [store] { return std::make_shared<CurlHttpRequest>(store); };
}

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

CurlHttpRequest::CurlHttpRequest(std::shared_ptr<certs::CertUtilityInterface> machineStore)
    : machineStore_(machineStore ? std::move(machineStore) : fetchingMachineStore()),
      userProxy_(std::make_shared<ProxyConfig>()) {
    ensureCurlInitialized();
}

CurlHttpRequest::~CurlHttpRequest() {
    cancelRequest();
    joinWorkers(true);
}

// --- Perform operations ---

bool CurlHttpRequest::getSync(const std::string& url, std::string& response) {
    return performSync(HttpMethod::Get, url, std::string(), response);
}

bool CurlHttpRequest::postSync(ContentType type, const std::string& url, const std::string& body,
                               std::string& response) {
    stageBody(type, body, std::string());
    return performSync(HttpMethod::Post, url, body, response) && isSuccess();
}

bool CurlHttpRequest::putSync(ContentType type, const std::string& url, const std::string& body,
                              std::string& response) {
    stageBody(type, body, std::string());
    return performSync(HttpMethod::Put, url, body, response) && isSuccess();
}

bool CurlHttpRequest::putSyncReversed(ContentType type, const std::string& url,
                                      std::string& response, const std::string& body) {
    return putSync(type, url, body, response);
}

bool CurlHttpRequest::deleteSync(const std::string& url, std::string& response) {
    return performSync(HttpMethod::Delete, url, std::string(), response);
}

bool CurlHttpRequest::getAsync(const std::string& url, Callback callback) {
    return performAsync(HttpMethod::Get, url, std::move(callback));
}

bool CurlHttpRequest::postAsync(ContentType type, const std::string& url, const std::string& body,
                                Callback callback) {
    stageBody(type, body, std::string());
    return performAsync(HttpMethod::Post, url, std::move(callback));
}

bool CurlHttpRequest::putAsync(ContentType type, const std::string& url,
                               const std::vector<std::uint8_t>& buffer, std::size_t length,
                               Callback callback) {
    if (buffer.size() < length) {
        MFW_LOG(4,
                "CurlHttpRequest::putAsync(): Size of outgoing buffer is smaller than the given "
                "length");
        return false;
    }
    stageBody(type,
              std::string(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(length)),
              std::string());
    return performAsync(HttpMethod::Put, url, std::move(callback));
}

bool CurlHttpRequest::putStringAsync(ContentType type, const std::string& url,
                                     const std::string& body, Callback callback) {
    stageBody(type, body, std::string());
    return performAsync(HttpMethod::Put, url, std::move(callback));
}

bool CurlHttpRequest::putFileAsync(ContentType type, const std::string& url,
                                   const std::string& filePath, Callback callback) {
    stageBody(type, std::string(), filePath);
    return performAsync(HttpMethod::Put, url, std::move(callback));
}

void CurlHttpRequest::stageBody(ContentType type, std::string body, std::string filePath) {
    std::lock_guard lock(mutex_);
    if (const char* value = contentTypeValue(type)) {
        headers_["Content-Type"] = value;
    }
    requestBody_ = std::move(body);
    uploadFilePath_ = std::move(filePath);
}

bool CurlHttpRequest::performAsync(HttpMethod method, const std::string& url, Callback callback) {
    if (!callback) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Invalid callback parameter");
        return false;
    }
    joinWorkers(false);
    std::lock_guard lock(mutex_);
    auto transfer = prepare(method, url);
    if (!transfer) {
        return false;
    }
    const std::uint64_t generation = shared_->generation;
    try {
        std::thread next([this, t = std::move(transfer), cb = std::move(callback), generation,
                          shared = shared_]() mutable {
            Outcome outcome = run(*t, true);
            t.reset();  // every handle is released before the completion is reported
            if (outcome.cancelled) {
                return;
            }
            try {
                cb(this, std::move(outcome.body));
            } catch (...) {
                MFW_LOG(4, "CurlHttpRequest::RequestCallback(): The completion callback threw");
            }
            // `this` may be gone now (the callback may have released it).
            std::lock_guard done(shared->mutex);
            if (shared->generation == generation && shared->state == State::Completing) {
                shared->state = State::Idle;
                shared->changed.notify_all();
            }
        });
        if (worker_.joinable()) {
            retired_.push_back(std::move(worker_));  // the caller's own thread
        }
        worker_ = std::move(next);
    } catch (const std::exception& e) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to start the request thread: %s",
                e.what());
        shared_->state = State::Idle;
        shared_->changed.notify_all();
        return false;
    }
    return true;
}

bool CurlHttpRequest::performSync(HttpMethod method, const std::string& url,
                                  const std::string& body, std::string& response) {
    if (method == HttpMethod::Post || method == HttpMethod::Put) {
        stageBody(ContentType::None, body, std::string());
    }
    std::unique_ptr<Transfer> transfer;
    {
        std::lock_guard lock(mutex_);
        transfer = prepare(method, url);
        if (transfer) {
            transfer->overallDeadline = Clock::now() + std::chrono::milliseconds(timeoutMs_);
        }
    }
    if (!transfer) {
        MFW_LOG(4, "CurlHttpRequest::performSync(): Failed to perform synchronous request");
        return false;
    }
    Outcome outcome = run(*transfer, false);
    transfer.reset();
    response = std::move(outcome.body);
    if (outcome.timedOut) {
        MFW_LOG(4, "CurlHttpRequest::performSync(): Waiting for http request failed");
        return false;
    }
    return !outcome.cancelled && outcome.error == CURLE_OK;
}

// Checks and copies everything a request needs; called under the mutex. Any
// failure here happens before network traffic and leaves the object idle.
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
    const State state = shared_->state;
    if (state == State::Running ||
        (state == State::Completing && shared_->completingThread != std::this_thread::get_id())) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): A request is already in progress");
        return nullptr;
    }
    if (!curlUsesOpenSsl()) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): libcurl does not use OpenSSL for TLS");
        return nullptr;
    }

    auto t = std::make_unique<Transfer>();
    t->owner = this;
    t->method = method;
    t->url = url;
    t->host = parsed->host;
    t->easy.reset(curl_easy_init());
    if (!t->easy) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): curl_easy_init failed");
        return nullptr;
    }

    // Query: parameters of the URL join the configured ones.
    if (!parsed->query.empty()) {
        std::size_t start = 0;
        while (start <= parsed->query.size()) {
            const std::size_t end = std::min(parsed->query.find('&', start), parsed->query.size());
            const std::string item = parsed->query.substr(start, end - start);
            if (!item.empty()) {
                const std::size_t eq = item.find('=');
                queryParams_[unescape(t->easy.get(), item.substr(0, eq))] =
                    eq == std::string::npos ? std::string()
                                            : unescape(t->easy.get(), item.substr(eq + 1));
            }
            start = end + 1;
        }
    }
    queryString_.clear();
    if (!queryParams_.empty()) {
        queryString_ = "?";
        for (const auto& [name, value] : queryParams_) {
            queryString_ += escape(t->easy.get(), name) + "=" + escape(t->easy.get(), value) + "&";
        }
    }
    {
        CurlUrlPtr full(curl_url());
        char* text = nullptr;
        if (!full || curl_url_set(full.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
            curl_url_set(full.get(), CURLUPART_QUERY,
                         queryString_.empty() ? nullptr : queryString_.c_str() + 1,
                         0) != CURLUE_OK ||
            curl_url_set(full.get(), CURLUPART_FRAGMENT, nullptr, 0) != CURLUE_OK ||
            curl_url_get(full.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to parse url");
            return nullptr;
        }
        t->fullUrl = text;
        curl_free(text);
    }

    // Body, for POST and PUT only.
    if (method == HttpMethod::Post || method == HttpMethod::Put) {
        t->hasBody = true;
        if (!uploadFilePath_.empty()) {
            std::error_code ec;
            const auto size = std::filesystem::file_size(uploadFilePath_, ec);
            if (ec) {
                MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to read the size of %s: %s",
                        uploadFilePath_.c_str(), ec.message().c_str());
                return nullptr;
            }
            t->file.open(uploadFilePath_, std::ios::binary);
            if (!t->file) {
                MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to open %s",
                        uploadFilePath_.c_str());
                return nullptr;
            }
            t->totalLength = size;
            t->chunkSize = std::max<std::uint64_t>(1, uploadChunkSize_);
        } else {
            t->memoryBody = requestBody_;
            t->totalLength = t->memoryBody.size();
        }
        if (t->totalLength > maxRequestSize_) {
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Request data size is too large");
            return nullptr;
        }
    }

    // Headers, one "name: value" line each.
    curl_slist* list = nullptr;
    bool contentType = false;
    for (const auto& [name, value] : headers_) {
        if (name.empty() || hasLineBreak(name) || hasLineBreak(value) ||
            name.find(':') != std::string::npos) {
            curl_slist_free_all(list);
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Invalid request header");
            return nullptr;
        }
        contentType = contentType || curl_strequal(name.c_str(), "Content-Type") != 0;
        const std::string line = value.empty() ? name + ";" : name + ": " + value;
        curl_slist* next = curl_slist_append(list, line.c_str());
        if (next == nullptr) {
            curl_slist_free_all(list);
            MFW_LOG(4, "CurlHttpRequest::performAsync(): Out of memory");
            return nullptr;
        }
        list = next;
    }
    t->headers.reset(list);
    // No "Expect: 100-continue" round trip, and no content type we were not asked for.
    for (const char* line : {"Expect:", contentType ? nullptr : "Content-Type:"}) {
        if (line != nullptr) {
            curl_slist* head = t->headers.release();
            curl_slist* next = curl_slist_append(head, line);
            t->headers.reset(next != nullptr ? next : head);
        }
    }

    t->ignoreAll = ignoreAllCertErrors_;
    t->ignoreName = ignoreNameMismatch_;
    t->checkRevocation = checkRevocation_;
    t->pin = pinnedThumbprint_;
    t->store = machineStore_;
    for (const auto& pem : additionalPems_) {
        for (auto& cert : certs::x509sFromPemBundle(pem)) {
            t->additional.push_back(std::move(cert));
        }
    }
    t->proxyServer = proxyServer_;
    t->proxyBypass = proxyBypass_;
    t->proxyUser = proxyUser_;
    t->proxyPassword = proxyPassword_;
    t->pacUrl = pacUrl_;
    t->userProxy = userProxy_;
    t->pacLimits = pacLimits_;
    t->timeouts = computeTimeouts(timeoutMs_);
    t->maxResponseSize = maxResponseSize_;

    if (!setUpTransfer(*t)) {
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

// Runs the request to its end on the calling thread.
CurlHttpRequest::Outcome CurlHttpRequest::run(Transfer& t, bool async) {
    Outcome outcome;
    CURLcode rc = CURLE_OK;
    const std::string proxy = getProxyURL(t);
    if (t.cancel->cancelled()) {
        rc = CURLE_ABORTED_BY_CALLBACK;
    } else {
        CURL* h = t.easy.get();
        curl_easy_setopt(h, CURLOPT_PROXY, proxy.c_str());
        if (!proxy.empty() && !t.proxyUser.empty() && !t.proxyPassword.empty()) {
            curl_easy_setopt(h, CURLOPT_PROXYUSERNAME, t.proxyUser.c_str());
            curl_easy_setopt(h, CURLOPT_PROXYPASSWORD, t.proxyPassword.c_str());
            curl_easy_setopt(h, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
        }
        rc = runTransfer(h, t.cancel.get(), [&t, h](std::chrono::milliseconds& wait) {
            const auto now = Clock::now();
            if (t.overallDeadline && now >= *t.overallDeadline) {
                t.overallExpired = true;
                return CURLE_OPERATION_TIMEDOUT;
            }
            if (!t.appConnected) {
                curl_off_t connected = 0;
                if (curl_easy_getinfo(h, CURLINFO_APPCONNECT_TIME_T, &connected) == CURLE_OK &&
                    connected > 0) {
                    t.appConnected = true;
                    t.lastActivity = now;
                }
            }
            if (t.appConnected) {
                const bool sending = t.bytesSent < t.totalLength;
                const auto idle =
                    std::chrono::milliseconds(sending ? t.timeouts.sendMs : t.timeouts.receiveMs);
                const auto idleDeadline = t.lastActivity + idle;
                if (now >= idleDeadline) {
                    t.stalled = true;
                    return CURLE_OPERATION_TIMEDOUT;
                }
                wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(
                                          idleDeadline - now) +
                                          std::chrono::milliseconds(1));
            }
            if (t.overallDeadline) {
                wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(
                                          *t.overallDeadline - now) +
                                          std::chrono::milliseconds(1));
            }
            return CURLE_OK;
        });
    }

    if (!t.appConnected) {
        // The whole exchange may have run within one round of the driver.
        curl_off_t connected = 0;
        t.appConnected =
            curl_easy_getinfo(t.easy.get(), CURLINFO_APPCONNECT_TIME_T, &connected) == CURLE_OK &&
            connected > 0;
    }
    outcome.cancelled = t.cancel->cancelled();
    outcome.timedOut = t.overallExpired;
    outcome.error = rc;
    if (outcome.cancelled) {
        MFW_LOG(1, "CurlHttpRequest::cancelRequest(): The request was cancelled");
    } else if (rc != CURLE_OK && !t.overallExpired) {
        logRequestError(t, rc);
    }
    if (t.file.is_open()) {
        t.file.close();
    }

    std::lock_guard lock(mutex_);
    requestComplete_ = true;
    lastProxy_ = proxy;
    transportError_ = rc;
    outcome.body = responseBody_;
    if (async && !outcome.cancelled) {
        shared_->state = State::Completing;
        shared_->completingThread = std::this_thread::get_id();
    } else {
        shared_->state = State::Idle;
    }
    shared_->changed.notify_all();
    return outcome;
}

void CurlHttpRequest::logRequestError(const Transfer& t, CURLcode rc) {
    if (t.refusedByPin) {
        return;  // SendingRequest has said why
    }
    const char* step = !t.appConnected               ? "SendRequest"
                       : t.bytesSent < t.totalLength ? "WriteData"
                       : !t.headersDone              ? "ReceiveResponse"
                                                     : "ReadData";
    MFW_LOG(4, "CurlHttpRequest::RequestCallback(): %s failed: 0x%x", step,
            static_cast<unsigned>(rc));
    if (t.stalled) {
        MFW_LOG(4, "CurlHttpRequest::RequestCallback(): No data moved for %u ms",
                t.bytesSent < t.totalLength ? t.timeouts.sendMs : t.timeouts.receiveMs);
    } else if (!t.secureFailure && !t.bodyTooLarge && !t.uploadFailed) {
        MFW_LOG(4, "CurlHttpRequest::RequestCallback(): %s",
                t.errorBuffer[0] != '\0' ? t.errorBuffer : curl_easy_strerror(rc));
    }
}

// --- Proxy choice ---

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

// --- curl callbacks (never throw) ---

CURLcode CurlHttpRequest::sslContextCallback(CURL*, void* sslCtx, void* userptr) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(sslCtx),
                                     &CurlHttpRequest::verifyCallback, userptr);
    return CURLE_OK;
}

int CurlHttpRequest::verifyCallback(X509_STORE_CTX* ctx, void* arg) {
    auto* t = static_cast<Transfer*>(arg);
    bool ok = false;
    try {
        ok = t != nullptr && t->owner->verifyServer(*t, ctx);
    } catch (...) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Internal error while checking the server");
        ok = false;
    }
    ERR_clear_error();
    X509_STORE_CTX_set_error(ctx, ok ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
    return ok ? 1 : 0;
}

bool CurlHttpRequest::verifyServer(Transfer& t, X509_STORE_CTX* ctx) {
    const CheckingRequest checking(t.cancel.get());
    X509* leaf = X509_STORE_CTX_get0_cert(ctx);
    // The server certificate as a platform TLS stack hands it over: with the
    // certificates the server sent in an in-memory store of its own, where
    // chain building looks for issuers; the additional store joins them.
    certs::CertContext server(shareX509(leaf));
    server.store = t.store->OpenMemoryStore();
    if (server && server.store) {
        const auto add = [&](X509* cert) {
            if (cert != nullptr && X509_cmp(cert, leaf) != 0) {
                t.store->ImportCertificate(certs::x509ToPem(cert), server.store, "", {}, "");
            }
        };
        if (STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(ctx)) {
            for (int i = 0; i < sk_X509_num(sent); ++i) {
                add(sk_X509_value(sent, i));
            }
        }
        for (const auto& extra : t.additional) {
            add(extra.get());
        }
    }
    if (!t.pin.empty()) {
        const bool ok = SendingRequest(t, server);
        t.refusedByPin = !ok;
        return ok;
    }
    return checkAsPlatform(t, server);
}

// The checks with a pinned thumbprint.
bool CurlHttpRequest::SendingRequest(Transfer& t, const certs::CertContext& server) {
    {
        std::lock_guard lock(mutex_);
        if (chainVerified_) {
            MFW_LOG(1,
                    "CurlHttpRequest::SendingRequest(): Skip as server certificate chain has "
                    "already been verified");
            return true;
        }
    }
    if (t.ignoreAll) {
        return true;
    }
    const certs::CertChainPtr chain =
        server ? t.store->BuildCertificateChain(&server, server.store) : nullptr;
    if (!chain) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Unable to obtain certificate chain");
        return false;
    }
    std::uint32_t status = 0;
    if (!t.store->VerifyCertChain(chain.get(), t.host, false, false, status)) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Initial VerifyCertChain failed");
        return false;
    }
    bool pinning = false;
    if (status == certs::policy::kUntrustedRoot) {
        std::uint32_t relaxed = 0;
        if (!t.store->VerifyCertChain(chain.get(), t.host, true, false, relaxed)) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): VerifyCertChain with untrustedroot "
                    "ignored failed");
            return false;
        }
        if (relaxed == certs::policy::kCnNoMatch) {
            MFW_LOG(3, "CurlHttpRequest::SendingRequest(): Found a CN/SAN mismatch");
            if (!t.ignoreName) {
                return false;
            }
        } else if (relaxed != certs::policy::kOk) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Unable to verify cert chain with CA check "
                    "disabled. Error: 0x%x",
                    relaxed);
            return false;
        }
        pinning = true;
    } else if (status == certs::policy::kCnNoMatch) {
        MFW_LOG(3, "CurlHttpRequest::SendingRequest(): Found a CN/SAN mismatch");
        if (!t.ignoreName) {
            return false;
        }
    } else if (status != certs::policy::kOk) {
        MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Unable to verify cert chain. Error: 0x%x",
                status);
        return false;
    }

    if (pinning) {
        // An unknown root: trust only a chain holding the pinned certificate.
        std::vector<std::string> pems;
        if (!t.store->ConvertChainCtxToPEM(chain.get(), pems)) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Failed to convert chain context to pem "
                    "format");
            return false;
        }
        std::string received;
        const std::string* matched = nullptr;
        for (const auto& pem : pems) {
            received += pem;
            if (pemThumbprint(pem) == t.pin) {
                matched = &pem;
            }
        }
        MFW_LOG(0, "CurlHttpRequest::SendingRequest(): Received cert chain from server:\r\n%s",
                received.c_str());
        if (matched == nullptr) {
            MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Thumbprints did not match");
            return false;
        }
        MFW_LOG(1, "CurlHttpRequest::SendingRequest(): Matched using the following chain:\r\n%s",
                matched->c_str());
        std::lock_guard lock(mutex_);
        chainVerified_ = true;
        return true;
    }

    if (t.checkRevocation) {
        std::uint32_t errorStatus = 0;
        std::uint32_t infoStatus = 0;
        if (!t.store->VerifyCertRevocation(&server, {}, errorStatus, infoStatus)) {
            MFW_LOG(4, "CurlHttpRequest::SendingRequest(): Failed to make revocation check");
            return false;
        }
        if (errorStatus != 0) {
            MFW_LOG(4,
                    "CurlHttpRequest::SendingRequest(): Revocation check failed. Status: 0x%x "
                    "Info: 0x%x",
                    errorStatus, infoStatus);
            return false;
        }
    }
    std::lock_guard lock(mutex_);
    chainVerified_ = true;
    return true;
}

// The checks without a pinned thumbprint, as the platform's TLS stack makes
// them: a trusted chain for the host, reported as secure-failure flags.
bool CurlHttpRequest::checkAsPlatform(Transfer& t, const certs::CertContext& server) {
    if (t.ignoreAll) {
        return true;
    }
    const certs::CertChainPtr chain =
        server ? t.store->BuildCertificateChain(&server, server.store) : nullptr;
    std::uint32_t status = 0;
    if (!chain || chain->simpleChains.empty() ||
        !t.store->VerifyCertChain(chain.get(), t.host, true, t.ignoreName, status)) {
        t.secureFailure = true;
        MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Internal ssl library error");
        return false;
    }
    const std::uint32_t bits = chain->simpleChains.front().errorStatus;
    const bool unknownCa = (bits & (certs::trust::kUntrustedRoot | certs::trust::kPartialChain));
    const bool expired = (bits & certs::trust::kNotTimeValid) != 0;
    const bool invalid =
        (bits & (certs::trust::kNotSignatureValid | certs::trust::kNotValidForUsage |
                 certs::trust::kInvalidBasicConstraints | certs::trust::kInvalidExtension)) != 0 ||
        status == certs::policy::kWrongUsage || status == certs::policy::kTrustFailure;
    const bool wrongName = status == certs::policy::kCnNoMatch;
    if (unknownCa || expired || invalid || wrongName) {
        t.secureFailure = true;
        if (invalid) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate is invalid");
        }
        if (unknownCa) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate Authority is unrecognized");
        }
        if (wrongName) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate Common Name is incorrect");
        }
        if (expired) {
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate is expired");
        }
        return false;
    }
    if (t.checkRevocation) {
        std::uint32_t errorStatus = 0;
        std::uint32_t infoStatus = 0;
        if (!t.store->VerifyCertRevocation(&server, {}, errorStatus, infoStatus) ||
            (errorStatus & ~certs::trust::kRevoked) != 0) {
            t.secureFailure = true;
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate revocation check failed");
        }
        if (errorStatus & certs::trust::kRevoked) {
            t.secureFailure = true;
            MFW_LOG(4, "CurlHttpRequest::RequestCallback(): Certificate has been revoked");
        }
        if (t.secureFailure) {
            return false;
        }
    }
    return true;
}

std::size_t CurlHttpRequest::readCallback(char* buffer, std::size_t size, std::size_t count,
                                          void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t room = size * count;
    t.lastActivity = Clock::now();
    if (t.bytesSent >= t.totalLength || room == 0) {
        return 0;
    }
    const bool fromFile = t.file.is_open();
    if (fromFile && t.chunkPos >= t.chunk.size()) {
        // The next chunk of the file.
        const auto want = std::min<std::uint64_t>(t.chunkSize, t.totalLength - t.bytesSent);
        t.chunk.resize(static_cast<std::size_t>(want));
        t.file.read(t.chunk.data(), static_cast<std::streamsize>(want));
        const auto got = static_cast<std::size_t>(t.file.gcount());
        if (got == 0) {
            MFW_LOG(4, "CurlHttpRequest::UploadData(): File stream is invalid");
            t.uploadFailed = true;
            return CURL_READFUNC_ABORT;
        }
        t.chunk.resize(got);
        t.chunkPos = 0;
        ++t.owner->uploadChunks_;
    }
    // An in-memory body is one chunk that is always at hand.
    const char* source = fromFile ? t.chunk.data() + t.chunkPos : t.memoryBody.data() + t.bytesSent;
    const std::size_t available = fromFile ? t.chunk.size() - t.chunkPos
                                           : static_cast<std::size_t>(t.totalLength - t.bytesSent);
    const std::size_t n = std::min(room, available);
    std::memcpy(buffer, source, n);
    if (fromFile) {
        t.chunkPos += n;
    }
    t.bytesSent += n;
    return n;
}

std::size_t CurlHttpRequest::writeCallback(char* data, std::size_t size, std::size_t count,
                                           void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    t.lastActivity = Clock::now();
    std::lock_guard lock(t.owner->mutex_);
    if (t.owner->responseBody_.size() + n > t.maxResponseSize) {
        t.bodyTooLarge = true;
        MFW_LOG(4, "CurlHttpRequest::DataAvailable(): Response body is too large");
        return 0;
    }
    t.owner->responseBody_.append(data, n);
    return n;
}

std::size_t CurlHttpRequest::headerCallback(char* data, std::size_t size, std::size_t count,
                                            void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    const std::string line(data, n);
    t.lastActivity = Clock::now();
    {
        std::lock_guard lock(t.owner->mutex_);
        if (line.rfind("HTTP/", 0) == 0) {
            t.owner->responseHeaders_.clear();  // a new response (after 1xx)
        }
        t.owner->responseHeaders_ += line;
    }
    if (line == "\r\n" || line == "\n") {
        long code = 0;
        const CURLcode rc = curl_easy_getinfo(t.easy.get(), CURLINFO_RESPONSE_CODE, &code);
        if (rc != CURLE_OK) {
            MFW_LOG(4, "CurlHttpRequest::CheckHeaders(): Unable to get status code. Error: 0x%x %s",
                    static_cast<unsigned>(rc), curl_easy_strerror(rc));
        } else if (code >= 200) {
            t.headersDone = true;
            MFW_LOG(1, "CurlHttpRequest::CheckHeaders(): HTTP status code received: %lu",
                    static_cast<unsigned long>(code));
            std::lock_guard lock(t.owner->mutex_);
            t.owner->statusCode_ = static_cast<std::uint32_t>(code);
        }
    }
    return n;
}

// --- Cancel and threads ---

void CurlHttpRequest::cancelRequest() {
    std::shared_ptr<CancelToken> token;
    {
        std::lock_guard lock(mutex_);
        if (shared_->state == State::Running) {
            token = cancel_;
        }
    }
    if (token) {
        token->cancel();
        std::unique_lock lock(mutex_);
        if (!shared_->changed.wait_for(lock, kCancelWait,
                                       [this] { return shared_->state != State::Running; })) {
            MFW_LOG(4, "CurlHttpRequest::cancelRequest(): Failed to wait for cancel event");
        }
    }
    joinWorkers(false);
}

// Joins completion threads that are done or finishing. The calling thread
// (a completion callback) is never joined; with `all` (destruction) it is let
// go: after the callback it touches only the shared state.
void CurlHttpRequest::joinWorkers(bool all) {
    std::vector<std::thread> toJoin;
    {
        std::lock_guard lock(mutex_);
        // A request still running keeps its thread (only destruction waits).
        if (worker_.joinable() && (all || shared_->state != State::Running)) {
            retired_.push_back(std::move(worker_));
        }
        std::vector<std::thread> keep;
        for (auto& thread : retired_) {
            if (thread.get_id() == std::this_thread::get_id()) {
                if (all) {
                    thread.detach();
                } else {
                    keep.push_back(std::move(thread));
                }
            } else {
                toJoin.push_back(std::move(thread));
            }
        }
        retired_ = std::move(keep);
    }
    for (auto& thread : toJoin) {
        thread.join();
    }
}

// --- Setters and getters ---

void CurlHttpRequest::ignoreAllCertErrors() {
    std::lock_guard lock(mutex_);
    ignoreAllCertErrors_ = true;
}

void CurlHttpRequest::ignoreNameMismatch() {
    std::lock_guard lock(mutex_);
    ignoreNameMismatch_ = true;
}

void CurlHttpRequest::setAdditionalStore(std::vector<std::string> certificatesPem) {
    std::lock_guard lock(mutex_);
    additionalPems_ = std::move(certificatesPem);
}

void CurlHttpRequest::enableRevocationCheck() {
    std::lock_guard lock(mutex_);
    checkRevocation_ = true;
}

void CurlHttpRequest::setHeaders(const HeaderMap& headers) {
    std::lock_guard lock(mutex_);
    headers_ = headers;
}

void CurlHttpRequest::setQueryParams(const HeaderMap& params) {
    std::lock_guard lock(mutex_);
    queryParams_ = params;
}

void CurlHttpRequest::setPinnedThumbprint(const std::string& thumbprint) {
    std::lock_guard lock(mutex_);
    pinnedThumbprint_ = thumbprint;
}

void CurlHttpRequest::setTimeout(std::uint32_t seconds) {
    std::lock_guard lock(mutex_);
    timeoutMs_ = seconds * 1000;
}

void CurlHttpRequest::setProxyServer(const std::string& server) {
    std::lock_guard lock(mutex_);
    proxyServer_ = server;
}

void CurlHttpRequest::setProxyBypass(const std::string& bypass) {
    std::lock_guard lock(mutex_);
    proxyBypass_ = bypass;
}

void CurlHttpRequest::setProxyCredentials(const std::string& user, const std::string& password) {
    std::lock_guard lock(mutex_);
    proxyUser_ = user;
    proxyPassword_ = password;
}

void CurlHttpRequest::setPacUrl(const std::string& url) {
    std::lock_guard lock(mutex_);
    pacUrl_ = url;
}

std::uint32_t CurlHttpRequest::getResponseCode() {
    std::lock_guard lock(mutex_);
    if (!requestComplete_) {
        MFW_LOG(3, "CurlHttpRequest::getResponseCode(): Request did not complete");
    }
    return statusCode_;
}

std::string CurlHttpRequest::getResponseHeaders() {
    std::lock_guard lock(mutex_);
    if (!requestComplete_) {
        MFW_LOG(3, "CurlHttpRequest::getResponseHeaders(): Request did not complete");
    }
    return responseHeaders_;
}

std::string CurlHttpRequest::getResponseBody() {
    std::lock_guard lock(mutex_);
    return responseBody_;
}

bool CurlHttpRequest::isSuccess() {
    std::lock_guard lock(mutex_);
    return isSuccessStatus(statusCode_);
}

void CurlHttpRequest::setMaxRequestSize(std::uint64_t bytes) {
    std::lock_guard lock(mutex_);
    maxRequestSize_ = bytes;
}

void CurlHttpRequest::setUploadChunkSize(std::uint64_t bytes) {
    std::lock_guard lock(mutex_);
    uploadChunkSize_ = bytes;
}

void CurlHttpRequest::setMaxResponseSize(std::uint64_t bytes) {
    std::lock_guard lock(mutex_);
    maxResponseSize_ = bytes;
}

void CurlHttpRequest::setPacLimits(const PacLimits& limits) {
    std::lock_guard lock(mutex_);
    pacLimits_ = limits;
}

void CurlHttpRequest::setUserProxyConfig(std::shared_ptr<ProxyConfig> config) {
    std::lock_guard lock(mutex_);
    if (config) {
        userProxy_ = std::move(config);
    }
}

CurlHttpRequest::Timeouts CurlHttpRequest::computeTimeouts(std::uint32_t total) {
    return Timeouts{share(total, kResolveShare), share(total, kConnectShare),
                    share(total, kSendShare), share(total, kReceiveShare), total};
}

CurlHttpRequest::Timeouts CurlHttpRequest::timeouts() const {
    std::lock_guard lock(mutex_);
    return computeTimeouts(timeoutMs_);
}

bool CurlHttpRequest::chainVerified() const {
    std::lock_guard lock(mutex_);
    return chainVerified_;
}

int CurlHttpRequest::transportError() const {
    std::lock_guard lock(mutex_);
    return static_cast<int>(transportError_);
}

std::string CurlHttpRequest::lastProxy() const {
    std::lock_guard lock(mutex_);
    return lastProxy_;
}

std::string CurlHttpRequest::queryString() const {
    std::lock_guard lock(mutex_);
    return queryString_;
}

}  // namespace ndpx::net
