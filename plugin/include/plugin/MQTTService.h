#pragma once
// The host worker "MQTT" through which the agent's other workers reach the
// session (see MQTTServiceOp for the operations). It owns the migration
// manager, which reaches the process's MqttManager through a narrow session
// interface: the operations live only as long as the worker does.

#include <mfw/MessageFrameWork.h>
#include <mfw/PropertyBag.h>

#include <memory>
#include <string>

namespace ndpx {

namespace migration {
class MigrationManager;
class MigrationSession;
}  // namespace migration

class MQTTService : public CORE::service {
public:
    explicit MQTTService(CORE::PropertyBag params);
    ~MQTTService() override;

    // Registers the worker; false (and logged by the caller) on failure.
    bool start();
    // Leaves the desktop manager's notify queue and removes the worker.
    void stop();

    bool registered() const { return registered_; }
    const CORE::PropertyBag& params() const { return params_; }
    migration::MigrationManager& migration() { return *migration_; }

private:
    std::wstring name_;
    bool registered_ = false;
    bool stopping_ = false;
    CORE::coreevent stopEvent_;
    CORE::PropertyBag params_;
    std::unique_ptr<migration::MigrationSession> session_;
    std::unique_ptr<migration::MigrationManager> migration_;
};

}  // namespace ndpx
