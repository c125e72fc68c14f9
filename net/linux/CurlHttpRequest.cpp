// CurlHttpRequest: construction, the perform operations, and running one
// request to its end on the calling thread or on a completion thread.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <optional>

namespace ndpx::net {

namespace {

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

HttpRequestFactory curlHttpRequestFactory(std::shared_ptr<certs::CertUtilityInterface> store) {
    return [store = std::move(store)] { return std::make_shared<CurlHttpRequest>(store); };
}

CurlHttpRequest::CurlHttpRequest(std::shared_ptr<certs::CertUtilityInterface> machineStore)
    : machineStore_(machineStore ? std::move(machineStore) : fetchingMachineStore()) {
    config_.userProxy = std::make_shared<ProxyConfig>();
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
    CORE::MutexLock lock(shared_->mutex);
    if (const char* value = contentTypeValue(type)) {
        config_.headers["Content-Type"] = value;
    }
    config_.requestBody = std::move(body);
    config_.uploadFilePath = std::move(filePath);
}

bool CurlHttpRequest::performAsync(HttpMethod method, const std::string& url, Callback callback) {
    if (!callback) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Invalid callback parameter");
        return false;
    }
    joinWorkers(false);
    auto transfer = prepare(method, url);
    if (!transfer) {
        return false;
    }
    std::optional<std::string> failure;
    {
        CORE::MutexLock lock(shared_->mutex);
        const std::uint64_t generation = shared_->generation;
        try {
            // Started under the lock: its handle is stored before its run can end.
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
                CORE::MutexLock done(shared->mutex);
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
            failure = e.what();
            shared_->state = State::Idle;
            shared_->changed.notify_all();
        }
    }
    if (failure) {
        MFW_LOG(4, "CurlHttpRequest::performAsync(): Unable to start the request thread: %s",
                failure->c_str());
        return false;
    }
    return true;
}

bool CurlHttpRequest::performSync(HttpMethod method, const std::string& url,
                                  const std::string& body, std::string& response) {
    if (method == HttpMethod::Post || method == HttpMethod::Put) {
        stageBody(ContentType::None, body, std::string());
    }
    std::unique_ptr<Transfer> transfer = prepare(method, url);
    if (transfer) {
        transfer->overallDeadline =
            Clock::now() + std::chrono::milliseconds(transfer->timeouts.totalMs);
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

    CORE::MutexLock lock(shared_->mutex);
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

}  // namespace ndpx::net
