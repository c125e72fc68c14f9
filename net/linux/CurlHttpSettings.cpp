// CurlHttpRequest's settings and what it reports of the last request.

#include "net/linux/CurlHttpRequest.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <cmath>

namespace ndpx::net {

namespace {

std::uint32_t share(std::uint32_t total, double fraction) {
    return std::max<std::uint32_t>(1, static_cast<std::uint32_t>(std::llround(total * fraction)));
}

}  // namespace

void CurlHttpRequest::ignoreAllCertErrors() {
    CORE::MutexLock lock(shared_->mutex);
    config_.ignoreAllCertErrors = true;
}

void CurlHttpRequest::ignoreNameMismatch() {
    CORE::MutexLock lock(shared_->mutex);
    config_.ignoreNameMismatch = true;
}

void CurlHttpRequest::setAdditionalStore(std::vector<std::string> certificatesPem) {
    CORE::MutexLock lock(shared_->mutex);
    config_.additionalPems = std::move(certificatesPem);
}

void CurlHttpRequest::enableRevocationCheck() {
    CORE::MutexLock lock(shared_->mutex);
    config_.checkRevocation = true;
}

void CurlHttpRequest::setHeaders(const HeaderMap& headers) {
    CORE::MutexLock lock(shared_->mutex);
    config_.headers = headers;
}

void CurlHttpRequest::setQueryParams(const HeaderMap& params) {
    CORE::MutexLock lock(shared_->mutex);
    config_.queryParams = params;
}

void CurlHttpRequest::setPinnedThumbprint(const std::string& thumbprint) {
    CORE::MutexLock lock(shared_->mutex);
    config_.pinnedThumbprint = thumbprint;
}

void CurlHttpRequest::setTimeout(std::uint32_t seconds) {
    CORE::MutexLock lock(shared_->mutex);
    config_.timeoutMs = seconds * 1000;
}

void CurlHttpRequest::setProxyServer(const std::string& server) {
    CORE::MutexLock lock(shared_->mutex);
    config_.proxyServer = server;
}

void CurlHttpRequest::setProxyBypass(const std::string& bypass) {
    CORE::MutexLock lock(shared_->mutex);
    config_.proxyBypass = bypass;
}

void CurlHttpRequest::setProxyCredentials(const std::string& user, const std::string& password) {
    CORE::MutexLock lock(shared_->mutex);
    config_.proxyUser = user;
    config_.proxyPassword = password;
}

void CurlHttpRequest::setPacUrl(const std::string& url) {
    CORE::MutexLock lock(shared_->mutex);
    config_.pacUrl = url;
}

std::uint32_t CurlHttpRequest::getResponseCode() {
    bool complete = false;
    std::uint32_t code = 0;
    {
        CORE::MutexLock lock(shared_->mutex);
        complete = requestComplete_;
        code = statusCode_;
    }
    if (!complete) {
        MFW_LOG(3, "CurlHttpRequest::getResponseCode(): Request did not complete");
    }
    return code;
}

std::string CurlHttpRequest::getResponseHeaders() {
    bool complete = false;
    std::string headers;
    {
        CORE::MutexLock lock(shared_->mutex);
        complete = requestComplete_;
        headers = responseHeaders_;
    }
    if (!complete) {
        MFW_LOG(3, "CurlHttpRequest::getResponseHeaders(): Request did not complete");
    }
    return headers;
}

std::string CurlHttpRequest::getResponseBody() {
    CORE::MutexLock lock(shared_->mutex);
    return responseBody_;
}

bool CurlHttpRequest::isSuccess() {
    CORE::MutexLock lock(shared_->mutex);
    return isSuccessStatus(statusCode_);
}

void CurlHttpRequest::setMaxRequestSize(std::uint64_t bytes) {
    CORE::MutexLock lock(shared_->mutex);
    config_.maxRequestSize = bytes;
}

void CurlHttpRequest::setUploadChunkSize(std::uint64_t bytes) {
    CORE::MutexLock lock(shared_->mutex);
    config_.uploadChunkSize = bytes;
}

void CurlHttpRequest::setMaxResponseSize(std::uint64_t bytes) {
    CORE::MutexLock lock(shared_->mutex);
    config_.maxResponseSize = bytes;
}

void CurlHttpRequest::setPacLimits(const PacLimits& limits) {
    CORE::MutexLock lock(shared_->mutex);
    config_.pacLimits = limits;
}

void CurlHttpRequest::setUserProxyConfig(std::shared_ptr<ProxyConfig> config) {
    if (!config) {
        return;
    }
    CORE::MutexLock lock(shared_->mutex);
    config_.userProxy.swap(config);  // the old one is released after the lock
}

CurlHttpRequest::Timeouts CurlHttpRequest::computeTimeouts(std::uint32_t total) {
    return Timeouts{share(total, kResolveShare), share(total, kConnectShare),
                    share(total, kSendShare), share(total, kReceiveShare), total};
}

CurlHttpRequest::Timeouts CurlHttpRequest::timeouts() const {
    CORE::MutexLock lock(shared_->mutex);
    return computeTimeouts(config_.timeoutMs);
}

bool CurlHttpRequest::chainVerified() const {
    CORE::MutexLock lock(shared_->mutex);
    return chainVerified_;
}

int CurlHttpRequest::transportError() const {
    CORE::MutexLock lock(shared_->mutex);
    return static_cast<int>(transportError_);
}

std::string CurlHttpRequest::lastProxy() const {
    CORE::MutexLock lock(shared_->mutex);
    return lastProxy_;
}

std::string CurlHttpRequest::queryString() const {
    CORE::MutexLock lock(shared_->mutex);
    return queryString_;
}

}  // namespace ndpx::net
