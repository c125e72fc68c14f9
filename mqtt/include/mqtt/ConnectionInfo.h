#pragma once
// What is known of the connection attempts: the GUID of the current one (it
// names the session in the last will and the status messages), the endpoint
// in use, the last attempt, and each endpoint's last result.

#include <mfw/corelock.h>

#include <map>
#include <string>

namespace ndpx {

// Results of the last connection attempt per endpoint.
enum EndpointResult : int { kEndpointConnected = 0, kEndpointFailed = 1, kEndpointTlsFailed = 3 };

class ConnectionInfo {
public:
    void beginAttempt(const std::string& guid, const std::string& endpointUrl);
    // Records `result` for the endpoint in use.
    void recordResult(int result);

    std::string guid() const;
    std::string currentEndpoint() const;
    // -1 when the endpoint was never tried.
    int lastResult(const std::string& endpoint) const;

    struct Broker {
        std::string host;  // empty when the endpoint does not parse
        int port = 0;
    };
    Broker broker() const;

    struct LastAttempt {
        std::string current;
        std::string endpoint;
        int result = -1;
    };
    LastAttempt lastAttempt() const;

private:
    mutable CORE::Mutex mutex_;
    std::string guid_ MFW_GUARDED_BY(mutex_);
    std::string current_ MFW_GUARDED_BY(mutex_);
    std::string lastAttempt_ MFW_GUARDED_BY(mutex_);
    std::map<std::string, int> results_ MFW_GUARDED_BY(mutex_);
    Broker broker_ MFW_GUARDED_BY(mutex_);
};

}  // namespace ndpx
