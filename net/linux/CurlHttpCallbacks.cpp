// CurlHttpRequest's transfer callbacks (request body out, response in),
// cancelling and the completion threads.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <cstring>

namespace ndpx::net {

namespace {

constexpr auto kCancelWait = std::chrono::milliseconds(5000);

}  // namespace

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

}  // namespace ndpx::net
