#pragma once
// Moves a running agent from the older message transport to MQTT, driven by
// the service operation "MigrateToCorvid": "bootstrap", "getstatus",
// "commit" and "rollback", executed against the persistent status
// "mqtt_MigrationStatus". Refusals answer through the reply bag's error code
// and text.
//
// One command at a time: `mutex_` is held for the whole of one command,
// calls into the session (start, stop, transport registration) included.
// The session's own threads write the status too (subscriptions complete,
// registration failed) without this lock.

#include "migration/MigrationSession.h"

#include <mfw/PropertyBag.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>

namespace ndpx {
class mqttConfig;
namespace certs {
class CertificateUtil;
}
}  // namespace ndpx

namespace ndpx::migration {

// Reply error codes.
inline constexpr int kErrorInvalidBootstrap = 1;
inline constexpr int kErrorBootstrap = 2;
inline constexpr int kErrorRollback = 3;
inline constexpr int kErrorCommit = 4;
inline constexpr int kErrorRefused = 5;  // already on MQTT; unknown command

// A bootstrap is an LCM spec of a few hundred bytes; anything beyond this is
// refused before it reaches the disk.
inline constexpr std::size_t kMaxBootstrapBytes = 1u << 20;

class MigrationManager {
public:
    using ConfigSource = std::function<std::shared_ptr<mqttConfig>()>;

    MigrationManager(MigrationSession& session, ConfigSource config,
                     std::shared_ptr<certs::CertificateUtil> certificates);
    MigrationManager(const MigrationManager&) = delete;
    MigrationManager& operator=(const MigrationManager&) = delete;

    // 1 when the command succeeded, 0 when it was refused (the reply says why).
    int ProcessMigrationMessage(CORE::PropertyBag& request, CORE::PropertyBag& reply);

private:
    bool handleBootstrap(CORE::PropertyBag& request, CORE::PropertyBag& reply);
    bool handleGetStatus(CORE::PropertyBag& request, CORE::PropertyBag& reply);
    bool handleCommit(CORE::PropertyBag& request, CORE::PropertyBag& reply);
    bool handleRollback(CORE::PropertyBag& request, CORE::PropertyBag& reply);

    // Logs the handler's entry with the current status and returns it.
    int enter(const char* handler, const char* command, mqttConfig& cfg);
    void notifyOldAgent();

    MigrationSession& session_;
    const ConfigSource config_;
    const std::shared_ptr<certs::CertificateUtil> certificates_;
    std::mutex mutex_;
};

}  // namespace ndpx::migration
