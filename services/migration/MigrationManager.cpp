#include "migration/MigrationManager.h"

#include "certs/CertificateUtil.h"
#include "config/Redaction.h"
#include "config/mqttConfig.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <string>

namespace ndpx::migration {
namespace {

using Status = MigrationStatus;

// A command type is a short word; whatever else arrives is shown cut and escaped.
constexpr std::size_t kLoggedTypeChars = 64;

bool refuse(CORE::PropertyBag& reply, int code, const wchar_t* text) {
    CORE::serviceOperation::setReplyError(reply, code, text);
    return false;
}

void setStatus(mqttConfig& cfg, Status status) {
    cfg.setMigrationStatus(static_cast<int>(status));
}

// A status in which a command is refused: the log line and the reply text.
struct Refusal {
    Status from;
    const char* line;
    const wchar_t* text;
};

constexpr Refusal kCommitRefusals[] = {
    {Status::CommitFailed, "Commit already failed, unable to commit", L"Commit failed"},
    {Status::Commit, "Commit in progress, cannot perform commit",
     L"Commit in progress, cannot perform commit"},
    {Status::NotStarted, "Migration not started, cannot perform commit",
     L"Migration not started, cannot perform commit"},
    {Status::Rollback, "Rollback in progress, cannot perform commit",
     L"Rollback in progress, cannot perform commit"},
    {Status::RollbackFailed, "Rollback failed, cannot perform commit",
     L"Rollback failed, cannot perform commit"},
};

constexpr Refusal kRollbackRefusals[] = {
    {Status::CommitComplete, "Already successfully committed, cannot perform rollback",
     L"Already committed, unable to rollback"},
    {Status::NotStarted, "Migration not started, cannot perform rollback",
     L"Migration not started, cannot perform rollback"},
    {Status::Rollback, "Rollback already in progress", L"Rollback already in progress"},
};

template <std::size_t N>
const Refusal* refusalFor(const Refusal (&table)[N], int status) {
    for (const Refusal& r : table) {
        if (static_cast<int>(r.from) == status) {
            return &r;
        }
    }
    return nullptr;
}

}  // namespace

MigrationManager::MigrationManager(MigrationSession& session, ConfigSource config,
                                   std::shared_ptr<certs::CertificateUtil> certificates)
    : session_(session), config_(std::move(config)), certificates_(std::move(certificates)) {}

int MigrationManager::ProcessMigrationMessage(CORE::PropertyBag& request,
                                              CORE::PropertyBag& reply) {
    const std::string type = CORE::toUtf8(request.get(L"type", L""));
    std::lock_guard lock(mutex_);
    const std::string shown = logSafePayload(type, kLoggedTypeChars);
    MFW_LOG(CORE::kLogDebug,
            "MigrationManager::ProcessMigrationMessage(): Received Corvid migration command type "
            "'%s'",
            shown.c_str());
    auto cfg = config_();
    // Checked before the type is recognised: an agent already on MQTT answers
    // every command but "getstatus" with this refusal.
    if (type != "getstatus" && CORE::iequals(cfg->getMsTransport(), L"MQTT")) {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::ProcessMigrationMessage(): Already using MQTT as message "
                "transport, ignoring '%s' request",
                shown.c_str());
        refuse(reply, kErrorRefused, L"Already using MQTT as message transport");
        return 0;
    }
    bool ok = false;
    if (type == "bootstrap") {
        ok = handleBootstrap(request, reply);
    } else if (type == "getstatus") {
        ok = handleGetStatus(request, reply);
    } else if (type == "rollback") {
        ok = handleRollback(request, reply);
    } else if (type == "commit") {
        ok = handleCommit(request, reply);
    } else {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::ProcessMigrationMessage(): Unknown migration command type '%s', "
                "ignoring",
                shown.c_str());
        ok = refuse(reply, kErrorRefused, L"Unknown migration command type");
    }
    return ok ? 1 : 0;
}

int MigrationManager::enter(const char* handler, const char* command, mqttConfig& cfg) {
    MFW_LOG(CORE::kLogDebug, "MigrationManager::%s(): Processing '%s' command", handler, command);
    const int status = cfg.getMigrationStatus();
    MFW_LOG(CORE::kLogDebug, "MigrationManager::%s(): Current status: %s", handler,
            migrationStatusName(status));
    return status;
}

bool MigrationManager::handleGetStatus(CORE::PropertyBag&, CORE::PropertyBag& reply) {
    auto cfg = config_();
    const int status = enter("handleGetStatus", "getstatus", *cfg);
    reply.clear();
    reply.set(L"status", CORE::toWide(migrationStatusName(status)));
    return true;
}

bool MigrationManager::handleBootstrap(CORE::PropertyBag& request, CORE::PropertyBag& reply) {
    auto cfg = config_();
    // Only from "notstarted", which a completed rollback returns to.
    if (enter("handleBootstrap", "bootstrap", *cfg) != static_cast<int>(Status::NotStarted)) {
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleBootstrap(): Migration has already started, unable to "
                "bootstrap");
        return refuse(reply, kErrorBootstrap,
                      L"Migration has already started, unable to bootstrap");
    }
    const std::string bootstrap = CORE::toUtf8(request.get(L"bootstrap", L""));
    if (bootstrap.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleBootstrap(): Empty migration bootstrap configuration, "
                "ignoring command");
        setStatus(*cfg, Status::BootstrapInvalid);
        return refuse(reply, kErrorInvalidBootstrap, L"Invalid bootstrap");
    }
    // Refused as it stands: the status stays "notstarted" for a proper one.
    if (bootstrap.size() > kMaxBootstrapBytes) {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::handleBootstrap(): Migration bootstrap configuration of %zu "
                "bytes is larger than %zu bytes, ignoring command",
                bootstrap.size(), kMaxBootstrapBytes);
        return refuse(reply, kErrorBootstrap,
                      L"Bootstrap configuration too large, unable to bootstrap");
    }
    if (!cfg->writeMigrationBootstrap(bootstrap)) {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::handleBootstrap(): Error writing migration bootstrap to file");
        setStatus(*cfg, Status::BootstrapFailed);
        return refuse(reply, kErrorBootstrap,
                      L"Error writing migration bootstrap to file, unable to bootstrap");
    }
    setStatus(*cfg, Status::Bootstrap);
    MFW_LOG(CORE::kLogDebug,
            "MigrationManager::handleBootstrap(): Written migration bootstrap. Migration status: "
            "%s",
            migrationStatusName(static_cast<int>(Status::Bootstrap)));
    if (!session_.IsStarted()) {
        // Its registration flow picks the bootstrap up from the provisioning file.
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleBootstrap(): Starting MqttManager to process bootstrap");
        session_.Start();
    } else {
        session_.BootstrapWritten();
    }
    MFW_LOG(CORE::kLogDebug, "MigrationManager::handleBootstrap(): Successfully started migration");
    return true;
}

bool MigrationManager::handleCommit(CORE::PropertyBag&, CORE::PropertyBag& reply) {
    auto cfg = config_();
    const int status = enter("handleCommit", "commit", *cfg);
    if (status == static_cast<int>(Status::CommitComplete)) {
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleCommit(): Already successfully committed, ignoring "
                "commit request");
        return true;
    }
    if (const Refusal* r = refusalFor(kCommitRefusals, status)) {
        MFW_LOG(CORE::kLogDebug, "MigrationManager::handleCommit(): %s", r->line);
        return refuse(reply, kErrorCommit, r->text);
    }
    if (status != static_cast<int>(Status::Connected)) {
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleCommit(): Unable to commit from current state '%s'",
                migrationStatusName(status));
        return refuse(reply, kErrorCommit,
                      L"Migration not complete. Unable to commit at this time");
    }

    // Written first, so that a crash from here on leaves a visible "commit".
    setStatus(*cfg, Status::Commit);
    if (!session_.IsConnected()) {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::handleCommit(): Unable to commit as MQTT isn't connected");
        setStatus(*cfg, Status::CommitFailed);
        return refuse(reply, kErrorCommit, L"Migration not complete. MQTT is not connected.");
    }
    if (!session_.RegisterMessageTransport()) {
        MFW_LOG(CORE::kLogError,
                "MigrationManager::handleCommit(): Unable to register MQTT as the main message "
                "transport");
        setStatus(*cfg, Status::CommitFailed);
        return refuse(reply, kErrorCommit,
                      L"Migration not complete. Unable to register MQTT as message transport");
    }
    notifyOldAgent();
    setStatus(*cfg, Status::CommitComplete);
    MFW_LOG(CORE::kLogDebug,
            "MigrationManager::handleCommit(): Successfully committed to MQTT message transport");
    return true;
}

// The old cloud agent plug-in switches itself off when told; it may not be
// installed at all, and nobody waits for it.
void MigrationManager::notifyOldAgent() {
    if (!CORE::MessageFrameWork::System().IsWorkerInstalled(L"DaasAgent", 0)) {
        return;
    }
    MFW_LOG(CORE::kLogDebug,
            "MigrationManager::handleCommit(): Sending ShutdownNotify to DaaS agent plugin");
    CORE::PropertyBag bag;
    bag.set(L"DISABLE", L"1");
    CORE::MessageHandler::PostMsg(L"DaasAgent", L"ShutdownNotify", bag);
}

bool MigrationManager::handleRollback(CORE::PropertyBag&, CORE::PropertyBag& reply) {
    auto cfg = config_();
    const int status = enter("handleRollback", "rollback", *cfg);
    if (const Refusal* r = refusalFor(kRollbackRefusals, status)) {
        MFW_LOG(CORE::kLogDebug, "MigrationManager::handleRollback(): %s", r->line);
        return refuse(reply, kErrorRollback, r->text);
    }

    setStatus(*cfg, Status::Rollback);
    if (!session_.Stop()) {
        // "rollbackfailed" may be rolled back again.
        MFW_LOG(CORE::kLogDebug,
                "MigrationManager::handleRollback(): Failed to stop MqttManager, unable to "
                "rollback");
        setStatus(*cfg, Status::RollbackFailed);
        return refuse(reply, kErrorRollback, L"Failed to stop MQTT, unable to rollback");
    }
    session_.RevertToRequireBootstrap();
    // The pending certificate, if a renewal left one, is not the migration's.
    if (certificates_ && !certificates_->RemoveClientCertificate(false)) {
        MFW_LOG(CORE::kLogWarning,
                "MigrationManager::handleRollback(): Unable to remove the MQTT client "
                "certificate");
    }
    setStatus(*cfg, Status::NotStarted);
    MFW_LOG(CORE::kLogDebug,
            "MigrationManager::handleRollback(): Successfully rolled back to JMS message "
            "transport");
    return true;
}

}  // namespace ndpx::migration
