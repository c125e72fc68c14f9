// The registration thread: brings the machine from provisioned or paired to
// connected, and runs the step chain again after a back-off when it fails.

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

void MqttManager::RegistrationThreadProc() {
    MFW_LOG(CORE::kLogVerbose,
            "MqttManager::RegistrationThreadProc(): Inside registration thread.");
    auto cfg = config();
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
    maxCachedRetries_ = static_cast<unsigned>(cfg->getStartupMaxCachedRetries());
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Maximum number of retries using cached "
            "data=%d",
            static_cast<int>(maxCachedRetries_));

    std::string root;
    RetrieveRootFolderPath(root);

    auto registrationFailed = [&](std::int32_t& interval) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::RegistrationThreadProc::<lambda_1>::operator ()(): Registration "
                "failed, will restart.");
        if (config()->isMigrationActive()) {
            config()->setMigrationStatus(static_cast<int>(MigrationStatus::BootstrapFailed));
        }
        interval =
            nextRegistrationInterval(interval, minWait, maxWait, minJitter, maxJitter, generator);
    };

    using Step = bool (MqttManager::*)();
    // RegisterMessageTransport is virtual: a derived manager may replace it.
    const Step steps[] = {&MqttManager::ParseLCMSpec,
                          &MqttManager::RegisterMessageTransport,
                          &MqttManager::ReadAndValidatePairingData,
                          &MqttManager::CreateAgentKeyPair,
                          &MqttManager::RequestCredentials,
                          &MqttManager::StorePairingData,
                          &MqttManager::MarkPairedState,
                          &MqttManager::ConfigureTopicNames,
                          &MqttManager::StartIPCServer,
                          nullptr};  // Connect returns an int

    if (WaitForFFCustomization()) {
        std::int32_t interval = kIntervalUnset;
        for (;;) {
            if (!WaitForLCMGeneratedSpec()) {
                registrationFailed(interval);
            } else {
                std::unique_lock chain(registrationMutex_);
                bool failed = false;
                for (const Step step : steps) {
                    if (shutdownEvent_.isSet()) {
                        MFW_LOG(CORE::kLogDebug, "%s", kStopping);
                        return;
                    }
                    if (rebootRequested_) {
                        MFW_LOG(CORE::kLogDebug, "%s", kRebooting);
                        return;
                    }
                    const bool ok = step != nullptr ? (this->*step)() : Connect() == 1;
                    if (!ok) {
                        registrationFailed(interval);
                        MFW_LOG(CORE::kLogDebug,
                                "MqttManager::RegistrationThreadProc::<lambda_1>::operator ()(): "
                                "Wait interval set to %d secs",
                                interval);
                        failed = true;
                        break;
                    }
                }
                chain.unlock();
                if (!failed) {
                    MFW_LOG(CORE::kLogDebug,
                            "MqttManager::RegistrationThreadProc(): Registration completed.");
                    registrationCompleted_ = true;
                    if (!config()->getContinuousPairEnabled()) {
                        MFW_LOG(CORE::kLogInfo,
                                "MqttManager::RegistrationThreadProc(): Continuous pairing NOT "
                                "enabled!");
                        break;
                    }
                    interval = minWait;
                }
            }
            if (shutdownEvent_.wait(secondsToWait(interval))) {
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

bool MqttManager::WaitForFFCustomization() {
    auto cfg = config();
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
        if (shutdownEvent_.wait(secondsToWait(wait))) {
            MFW_LOG(CORE::kLogInfo,
                    "MqttManager::WaitForFFCustomization(): Registration thread is shutting down.");
            return false;
        }
    }
}

bool MqttManager::WaitForLCMGeneratedSpec() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::WaitForLCMGeneratedSpec(): Waiting for LCM spec.");
    needBootstrap_ = false;
    auto cfg = config();
    while (cfg->isOtherTransportActive()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::WaitForLCMGeneratedSpec(): Quiesced");
        SetState(MQTT_STATE_QUIESCED);
        if (shutdownEvent_.wait(secondsToWait(cfg->getStartupLCMSpecWaitInterval()))) {
            MFW_LOG(CORE::kLogInfo,
                    "MqttManager::WaitForLCMGeneratedSpec(): Registration thread is shutting "
                    "down.");
            return false;
        }
    }
    std::error_code ec;
    if (!registrationCompleted_ && std::filesystem::exists(cfg->lcmSpecPath(), ec)) {
        needBootstrap_ = true;
        parseLcmSpec_ = true;
        return true;
    }
    if (cfg->ReadLCMSpecFromRegistry()) {
        return true;
    }
    if (!shutdownEvent_.isSet()) {
        SetState(MQTT_STATE_WAITING_CONFIG);
    }
    if (cfg->isPendingLCMSpecComplete()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::WaitForLCMGeneratedSpec(): Found pending LCM spec data in the "
                "registry.");
        needBootstrap_ = true;
        return true;
    }
    pendingRetries_ = 0;
    if (!WaitForLCMFileCreation()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::WaitForLCMGeneratedSpec(): Failed to wait for customData creation.");
        return false;
    }
    needBootstrap_ = true;
    parseLcmSpec_ = true;
    return true;
}

bool MqttManager::WaitForLCMFileCreation() {
    auto cfg = config();
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
    switch (fileWaiter_.wait(path, error, step)) {
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
