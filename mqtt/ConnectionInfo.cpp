#include "mqtt/ConnectionInfo.h"

#include "config/EndpointUrl.h"

namespace ndpx {

void ConnectionInfo::beginAttempt(const std::string& guid, const std::string& endpointUrl) {
    const auto parsed = parseEndpointUrl(endpointUrl);
    CORE::MutexLock lock(mutex_);
    guid_ = guid;
    current_ = endpointUrl;
    lastAttempt_ = endpointUrl;
    broker_ = parsed ? Broker{parsed->host, parsed->port} : Broker{};
}

void ConnectionInfo::recordResult(int result) {
    CORE::MutexLock lock(mutex_);
    results_[current_] = result;
}

std::string ConnectionInfo::guid() const {
    CORE::MutexLock lock(mutex_);
    return guid_;
}

std::string ConnectionInfo::currentEndpoint() const {
    CORE::MutexLock lock(mutex_);
    return current_;
}

int ConnectionInfo::lastResult(const std::string& endpoint) const {
    CORE::MutexLock lock(mutex_);
    const auto it = results_.find(endpoint);
    return it == results_.end() ? -1 : it->second;
}

ConnectionInfo::Broker ConnectionInfo::broker() const {
    CORE::MutexLock lock(mutex_);
    return broker_;
}

ConnectionInfo::LastAttempt ConnectionInfo::lastAttempt() const {
    CORE::MutexLock lock(mutex_);
    const auto it = results_.find(lastAttempt_);
    return {current_, lastAttempt_, it == results_.end() ? -1 : it->second};
}

}  // namespace ndpx
