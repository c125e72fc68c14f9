// The credential service's answer to a pairing request, as it arrives over
// HTTPS: any text. A parse that succeeds leaves an endpoint and both
// certificates; one that fails leaves what was there.

#include "FuzzCheck.h"
#include "FuzzLog.h"
#include "certs/pairingConfig.h"
#include "config/mqttConfig.h"

#include <platform/SettingsStore.h>

#include <cstdint>
#include <memory>
#include <string>

namespace {

using namespace ndpx;

std::shared_ptr<platform::SettingsStore> memoryStore() {
    std::string error;
    std::shared_ptr<platform::SettingsStore> store =
        platform::openSqliteSettingsStore(":memory:", error);
    fuzz::check(store != nullptr, "no store", error);
    return store;
}

// The parse reads no settings; the object needs some all the same.
mqttConfig& config() {
    static mqttConfig instance(memoryStore());
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::FuzzLog::get();
    config();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pairingConfig pairing(config());
    const CredentialsStatus status =
        pairing.InitCredentialsFromJSON(std::string(reinterpret_cast<const char*>(data), size));
    const bool parsed = status == CredentialsStatus::Success;
    using fuzz::check;
    check(!pairing.endpointUrl().empty() == parsed, "endpoint set exactly on success");
    check(pairing.bootstrapTopic().empty() != parsed, "topic set exactly on success");
    check(pairing.caCert().empty() != parsed && pairing.clientCert().empty() != parsed,
          "certificates set exactly on success");
    return 0;
}
