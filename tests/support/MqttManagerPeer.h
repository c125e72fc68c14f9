#pragma once
// Reaches into the manager for tests and benchmarks: marks it paired without
// running the pairing chain, and reads what only the session itself sees.

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

private:
    MqttManager& m_;
};

}  // namespace ndpx
