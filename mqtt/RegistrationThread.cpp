// The registration thread: brings the machine from provisioned or paired to
// connected, and runs the step chain again after a back-off when it fails.

#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "mqtt/Backoff.h"
#include "mqtt/MqttManager.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <algorithm>
#include <random>

namespace ndpx {
namespace {

constexpr const char* kStopping =
    "MqttManager::RegistrationThreadProc::<lambda_2>::operator ()(): Stopping registration "
    "thread.";
constexpr const char* kRebooting =
    "MqttManager::RegistrationThreadProc::<lambda_2>::operator ()(): Reboot requested, stopping "
    "registration thread.";

std::chrono::milliseconds secondsToWait(std::int32_t seconds) {
    return std::chrono::milliseconds(std::max<std::int64_t>(seconds, 0) * 1000);
}

}  // namespace

Registration::Registration(MqttManager& manager,
                           std::shared_ptr<certs::CertificateUtil> certificates,
                           std::shared_ptr<CredentialRequester> credentials)
    : manager_(manager),
      certificates_(std::move(certificates)),
      credentials_(std::move(credentials)),
      quiescedWake_(CORE::coreevent::Reset::Auto, false, manager.shutdownEvent().timeSource()) {}

Registration::~Registration() = default;

void Registration::resetRunData() {
    fileWaiter_.reset();
    registrationCompleted_ = false;
    rebootRequested_ = false;
    transportRegistered_ = false;
    CORE::MutexLock lock(mutex_);
    needBootstrap_ = false;
    parseLcmSpec_ = false;
    sameIdentity_ = false;
    activeRetries_ = 0;
    pendingRetries_ = 0;
    maxCachedRetries_ = 3;
    keyContainer_.clear();
    keyBlob_.clear();
    failureReason_.clear();
    pendingPairing_.reset();
    pairingConfigOwner_.reset();
}

void Registration::interrupt() {
    fileWaiter_.interrupt();
}

std::string Registration::lastFailureReason() {
    CORE::MutexLock lock(mutex_);
    return failureReason_;
}

void Registration::RegistrationThreadProc() {
    MFW_LOG(CORE::kLogVerbose,
            "MqttManager::RegistrationThreadProc(): Inside registration thread.");
    auto cfg = manager_.config();
    const std::int32_t minWait = cfg->getStartupMinWaitInterval();
    const std::int32_t maxWait = cfg->getStartupMaxWaitInterval();
    const std::int32_t minJitter = cfg->getStartupMinJitter();
    const std::int32_t maxJitter = std::max(minJitter, cfg->getStartupMaxJitter());
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Retry minInterval=%d, maxInterval=%d secs with "
            "jitter %d to %d secs",
            minWait, maxWait, minJitter, maxJitter);
    std::random_device seed;
    std::mt19937 generator(seed());
    const auto maxCached = static_cast<unsigned>(cfg->getStartupMaxCachedRetries());
    {
        CORE::MutexLock lock(mutex_);
        maxCachedRetries_ = maxCached;
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Maximum number of retries using cached "
            "data=%d",
            static_cast<int>(maxCached));

    std::string root;
    manager_.RetrieveRootFolderPath(root);

    auto registrationFailed = [&](std::int32_t& interval) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::RegistrationThreadProc::<lambda_1>::operator ()(): Registration "
                "failed, will restart.");
        auto c = manager_.config();
        if (c->isMigrationActive()) {
            c->setMigrationStatus(static_cast<int>(MigrationStatus::BootstrapFailed));
        }
        interval =
            nextRegistrationInterval(interval, minWait, maxWait, minJitter, maxJitter, generator);
    };

    if (WaitForFFCustomization()) {
        std::int32_t interval = kIntervalUnset;
        for (;;) {
            if (!WaitForLCMGeneratedSpec()) {
                registrationFailed(interval);
            } else {
                const ChainResult result = runChain();
                if (result == ChainResult::Ended) {
                    return;  // the chain said why
                }
                if (result == ChainResult::Failed && manager_.isStopping()) {
                    // Failed because the stop cancelled it: not a failed pass
                    // (a migration under way is not marked failed for it).
                    MFW_LOG(CORE::kLogDebug, "%s", kStopping);
                    return;
                }
                if (result == ChainResult::Failed) {
                    registrationFailed(interval);
                    MFW_LOG(CORE::kLogDebug,
                            "MqttManager::RegistrationThreadProc::<lambda_1>::operator ()(): "
                            "Wait interval set to %d secs",
                            interval);
                } else {
                    MFW_LOG(CORE::kLogDebug,
                            "MqttManager::RegistrationThreadProc(): Registration completed.");
                    registrationCompleted_ = true;
                    if (!manager_.config()->getContinuousPairEnabled()) {
                        MFW_LOG(CORE::kLogInfo,
                                "MqttManager::RegistrationThreadProc(): Continuous pairing NOT "
                                "enabled!");
                        break;
                    }
                    interval = minWait;
                }
            }
            if (manager_.shutdownEvent().wait(secondsToWait(interval))) {
                MFW_LOG(CORE::kLogDebug, "%s", kStopping);
                break;
            }
            if (rebootRequested_) {
                MFW_LOG(CORE::kLogDebug, "%s", kRebooting);
                break;
            }
        }
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Registration thread is now exiting.");
}

Registration::ChainResult Registration::runChain() {
    bool ended = false;
    // Before each step: stopping or a requested reboot ends the thread.
    const auto next = [&] {
        if (manager_.isStopping()) {
            MFW_LOG(CORE::kLogDebug, "%s", kStopping);
            ended = true;
        } else if (rebootRequested_) {
            MFW_LOG(CORE::kLogDebug, "%s", kRebooting);
            ended = true;
        }
        return !ended;
    };
    CORE::MutexLock chain(mutex_);
    // Step 2 goes through the manager, whose version a derived manager may replace.
    const bool completed =
        next() && ParseLCMSpec() && next() && manager_.RegisterMessageTransport() && next() &&
        ReadAndValidatePairingData() && next() && CreateAgentKeyPair() && next() &&
        RequestCredentials() && next() && StorePairingData() && next() && MarkPairedState() &&
        next() && manager_.ConfigureTopicNames() && next() && manager_.StartIPCServer() && next() &&
        manager_.Connect() == 1;
    return completed ? ChainResult::Completed : ended ? ChainResult::Ended : ChainResult::Failed;
}

bool Registration::WaitForFFCustomization() {
    auto cfg = manager_.config();
    if (!cfg->composerAgentDetected()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::WaitForFFCustomization(): Flashfork agent not detected");
        return true;
    }
    const std::int32_t wait = cfg->getStartupFFWaitInterval();
    MFW_LOG(CORE::kLogDebug, "MqttManager::WaitForFFCustomization(): Reading Flashfork settings");
    for (;;) {
        if (cfg->isCustomizationFinished()) {
            MFW_LOG(CORE::kLogDebug,
                    "MqttManager::WaitForFFCustomization(): Flashfork customization complete.");
            return true;
        }
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::WaitForFFCustomization(): Flashfork customization not yet complete.");
        if (manager_.shutdownEvent().wait(secondsToWait(wait))) {
            MFW_LOG(CORE::kLogInfo,
                    "MqttManager::WaitForFFCustomization(): Registration thread is shutting down.");
            return false;
        }
    }
}

bool Registration::WaitForLCMGeneratedSpec() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::WaitForLCMGeneratedSpec(): Waiting for LCM spec.");
    const auto bootstrapFrom = [this](bool parseSpec) {
        CORE::MutexLock lock(mutex_);
        needBootstrap_ = true;
        parseLcmSpec_ = parseSpec;
        return true;
    };
    {
        CORE::MutexLock lock(mutex_);
        needBootstrap_ = false;
    }
    auto cfg = manager_.config();
    while (cfg->isOtherTransportActive()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::WaitForLCMGeneratedSpec(): Quiesced");
        manager_.setRunState(MQTT_STATE_QUIESCED);
        if (waitWhileQuiesced(secondsToWait(cfg->getStartupLCMSpecWaitInterval()))) {
            MFW_LOG(CORE::kLogInfo,
                    "MqttManager::WaitForLCMGeneratedSpec(): Registration thread is shutting "
                    "down.");
            return false;
        }
    }
    std::error_code ec;
    if (!registrationCompleted_ && std::filesystem::exists(cfg->lcmSpecPath(), ec)) {
        return bootstrapFrom(true);
    }
    if (cfg->ReadLCMSpecFromRegistry()) {
        return true;
    }
    manager_.setRunState(MQTT_STATE_WAITING_CONFIG);
    if (cfg->isPendingLCMSpecComplete()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::WaitForLCMGeneratedSpec(): Found pending LCM spec data in the "
                "registry.");
        return bootstrapFrom(false);
    }
    {
        CORE::MutexLock lock(mutex_);
        pendingRetries_ = 0;
    }
    if (!WaitForLCMFileCreation()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::WaitForLCMGeneratedSpec(): Failed to wait for customData creation.");
        return false;
    }
    return bootstrapFrom(true);
}

bool Registration::waitWhileQuiesced(std::chrono::milliseconds limit) {
    CORE::coreevent::Waker onStop(manager_.shutdownEvent(), [this] { quiescedWake_.set(); });
    quiescedWake_.wait(limit);
    return manager_.isStopping();
}

void Registration::wakeQuiesced() {
    quiescedWake_.set();
}

bool Registration::WaitForLCMFileCreation() {
    auto cfg = manager_.config();
    const auto path = cfg->lcmSpecPath();
    std::error_code ec;
    if (std::filesystem::exists(path, ec)) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::WaitForLCMFileCreation(): CustomData exists; returning");
        return true;
    }
    // Make sure the folder exists, so that the watch has something to watch.
    std::filesystem::create_directories(path.parent_path(), ec);
    std::string error;
    int step = 0;
    const auto polling = [&path](const std::string& reason) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::WaitForLCMFileCreation(): Cannot watch for '%s' (%s); looking for it "
                "every %d ms instead.",
                path.c_str(), reason.c_str(),
                static_cast<int>(platform::FileCreationWaiter::kPollInterval.count()));
    };
    switch (fileWaiter_.wait(path, error, step, polling)) {
        case platform::FileCreationWaiter::Result::Created:
            return true;
        case platform::FileCreationWaiter::Result::Interrupted:
            return false;
        case platform::FileCreationWaiter::Result::Failed:
            break;
    }
    if (step == 1) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::WaitForLCMFileCreation(): Failed to open directory for '%s'. Error: "
                "%s",
                path.c_str(), error.c_str());
    } else if (step == 2) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::WaitForLCMFileCreation(): Failed to create event object. Error: %s",
                error.c_str());
    } else {
        MFW_LOG(CORE::kLogError,
                "MqttManager::WaitForLCMFileCreation(): Failed to monitor directory. Error: %s",
                error.c_str());
    }
    return false;
}

}  // namespace ndpx
