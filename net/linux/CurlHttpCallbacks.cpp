// CurlHttpRequest's transfer callbacks: the request body out, the response
// headers and body in, on the thread running the transfer.

#include "net/linux/CurlHttpRequest.h"

#include "CurlTransfer.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <cstring>

namespace ndpx::net {

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
    {
        CORE::MutexLock lock(t.owner->shared_->mutex);
        if (t.owner->responseBody_.size() + n <= t.maxResponseSize) {
            t.owner->responseBody_.append(data, n);
            return n;
        }
    }
    t.bodyTooLarge = true;
    MFW_LOG(4, "CurlHttpRequest::DataAvailable(): Response body is too large");
    return 0;
}

std::size_t CurlHttpRequest::headerCallback(char* data, std::size_t size, std::size_t count,
                                            void* user) {
    auto& t = *static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    const std::string line(data, n);
    t.lastActivity = Clock::now();
    {
        CORE::MutexLock lock(t.owner->shared_->mutex);
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
            CORE::MutexLock lock(t.owner->shared_->mutex);
            t.owner->statusCode_ = static_cast<std::uint32_t>(code);
        }
    }
    return n;
}

}  // namespace ndpx::net
