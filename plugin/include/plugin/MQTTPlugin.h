#pragma once
// The module's plug-in object: installs the MQTT transport when this machine
// needs it, and uninstalls it at exit.

#include "plugin/MQTTService.h"

#include <mfw/mfwPluginDll.h>

namespace ndpx {

class MQTTManagerHooks;

class MQTTPlugin : public CORE::mfwPluginDll {
public:
    MQTTPlugin() = default;

    bool pluginInit(void* a, void* b, void* c) override;
    bool pluginInitDone() override;
    void pluginServiceInstall(void* a, void* b, void* c) override;
    void pluginServiceUninstall() override;

    // MQTT is not needed when another transport is registered and no
    // migration message has arrived.
    static bool isMqttRequired(const std::wstring& transport, bool migrationMessageReceived);

    bool hasService() const;

private:
    void stopSequence();

    mutable CORE::corecritsec serviceLock_;
    CORE::ref<MQTTService> service_;
};

// FIPS set-up of the TLS library, logged as "MQTTInstall".
// `fipsModeText` is the registry's "FipsMode" text; only "1" asks for FIPS.
bool MQTTInstall(const std::string& fipsModeText);

}  // namespace ndpx
