// The registration thread: brings the machine from provisioned or paired to
// connected, retrying with back-off until the manager stops.

#include "mqtt/MqttManager.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <random>

namespace ndpx {

void MqttManager::RegistrationThreadProc() {
    MFW_LOG(CORE::kLogVerbose,
            "MqttManager::RegistrationThreadProc(): Inside registration thread.");
    auto cfg = config();
    const int minWait = cfg->getStartupMinWaitInterval();
    const int maxWait = cfg->getStartupMaxWaitInterval();
    const int minJitter = cfg->getStartupMinJitter();
    const int maxJitter = std::max(minJitter, cfg->getStartupMaxJitter());
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Retry minInterval=%d, maxInterval=%d secs with "
            "jitter %d to %d secs",
            minWait, maxWait, minJitter, maxJitter);
    std::random_device seed;
    std::mt19937 generator(seed());
    (void)generator;
    const int maxCachedRetries = cfg->getStartupMaxCachedRetries();
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Maximum number of retries using cached "
            "data=%d",
            maxCachedRetries);

    std::string root;
    RetrieveRootFolderPath(root);

    // Pairing and connecting arrive with the step chain; until then the
    // thread idles on the shutdown event so that Stop ends it at once.
    shutdownEvent_.waitMs(CORE::kInfinite);
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc::<lambda_2>::operator ()(): Stopping registration "
            "thread.");
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegistrationThreadProc(): Registration thread is now exiting.");
}

}  // namespace ndpx
