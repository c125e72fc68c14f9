#pragma once
// The host worker "MQTT" through which the agent's other workers reach the
// session (see MQTTServiceOp for the operations).

#include <mfw/MessageFrameWork.h>
#include <mfw/PropertyBag.h>

#include <string>

namespace ndpx {

class MQTTService : public CORE::service {
public:
    explicit MQTTService(CORE::PropertyBag params);
    ~MQTTService() override = default;

    // Registers the worker; false (and logged by the caller) on failure.
    bool start();
    // Leaves the desktop manager's notify queue and removes the worker.
    void stop();

    bool registered() const { return registered_; }
    const CORE::PropertyBag& params() const { return params_; }

private:
    std::wstring name_;
    bool registered_ = false;
    bool stopping_ = false;
    CORE::coreevent stopEvent_;
    CORE::PropertyBag params_;
};

}  // namespace ndpx
