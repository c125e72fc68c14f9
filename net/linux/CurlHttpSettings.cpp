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
