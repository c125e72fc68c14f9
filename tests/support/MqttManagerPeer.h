#pragma once
// Reaches into the manager for tests and benchmarks: marks it paired without
// running the pairing chain, and reads what only the session itself sees.

#include "certs/pairingConfig.h"
#include "mqtt/MqttManager.h"

namespace ndpx {

class MqttManagerTestPeer {
public:
    explicit MqttManagerTestPeer(MqttManager& manager) : m_(manager) {}

    // As the chain's "mark paired" step leaves it.
    void markPaired() {
        m_.pairedStateKnown_ = true;
        m_.pairedFlag_ = true;
    }
    unsigned subscribedMask() const { return m_.subscribedMask_.load(); }
    std::size_t pendingCommandCount() {
        CORE::MutexLock lock(m_.pendingLock_);
        return m_.pendingCommands_.size();
    }
    std::string lastFailureReason() { return m_.registration_.lastFailureReason(); }
    bool started() const { return m_.started_.load(); }
    bool stopping() const { return m_.isStopping(); }
    std::string connectionGuid() const { return m_.info_.guid(); }
    int lastEndpointResult(const std::string& endpoint) const {
        return m_.info_.lastResult(endpoint);
    }
    void clearDuplicateFilter() { m_.duplicates_->Clear(); }
    bool paired() const { return m_.pairedFlag_.load(); }
    Json::Value metricDetails() const { return m_.metricDetails(); }

    // The chain's store step on a later pass, after an earlier pass
    // completed, when the credentials answer did not parse into anything to
    // store.
    bool storeWithNothingParsed() {
        Registration& r = m_.registration_;
        r.registrationCompleted_ = true;
        CORE::MutexLock lock(r.mutex_);
        r.needBootstrap_ = true;
        r.pendingPairing_.reset();
        return r.StorePairingData();
    }

private:
    MqttManager& m_;
};

}  // namespace ndpx
