#include "plugin/MQTTPlugin.h"

#include <mfw/moduleLog.h>
#include <platform/TlsLibrary.h>

namespace ndpx {

bool MQTTInstall(const std::string& fipsModeText) {
    namespace tls = platform::tls;
    tls::initialize();
    const bool requested = fipsModeText == "1";
    if (requested) {
        MFW_LOG(CORE::kLogInfo, "MQTTInstall(): Fips mode is enabled in the registry");
    }
    tls::requestFips(requested);
    const bool mode = tls::completeSetup();
    MFW_LOG(CORE::kLogInfo, "MQTTInstall(): Running in %sFips mode = (mode:%d)", mode ? "" : "Non-",
            mode ? 1 : 0);
    return mode;
}

}  // namespace ndpx
