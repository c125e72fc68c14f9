#include "plugin/MQTTPlugin.h"

#include "config/mqttConfig.h"
#include "mqtt/MqttManager.h"
#include "plugin/MQTTServiceOp.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/TlsLibrary.h>

namespace ndpx {

bool MQTTPlugin::pluginInit(void*, void*, void*) {
    return false;
}

bool MQTTPlugin::pluginInitDone() {
    return true;
}

bool MQTTPlugin::isMqttRequired(const std::wstring& transport, bool migrationMessageReceived) {
    return migrationMessageReceived || transport.empty() || CORE::iequals(transport, L"MQTT");
}

bool MQTTPlugin::hasService() const {
    std::lock_guard lock(serviceLock_);
    return static_cast<bool>(service_);
}

void MQTTPlugin::pluginServiceInstall(void*, void*, void*) {
    std::lock_guard lock(serviceLock_);

    MFW_LOG(CORE::kLogDebug, "MQTTPlugin::pluginServiceInstall(): Waiting for %s queue",
            "DesktopManager");
    // The answer is not needed: installing goes on after the wait either way.
    // An exit that comes meanwhile ends the wait.
    CORE::MessageFrameWork::System().IsWorkerInstalled(L"DesktopManager", 120000, &exitEvent());
    if (exiting()) {
        MFW_LOG(CORE::kLogInfo, "MQTTPlugin::pluginServiceInstall(): Exiting, not installing");
        return;
    }

    auto config = mqttConfig::load();
    const std::wstring transport = config->getMsTransport();
    const bool migrationReceived = config->getMigrationMsgRcvd();
    MFW_LOG(CORE::kLogDebug, "MQTTPlugin::pluginServiceInstall(): Registered Message transport: %s",
            CORE::toUtf8(transport).c_str());
    MFW_LOG(CORE::kLogDebug, "MQTTPlugin::pluginServiceInstall(): Migration message received: %s",
            migrationReceived ? "true" : "false");

    if (!isMqttRequired(transport, migrationReceived)) {
        MFW_LOG(CORE::kLogDebug, "MQTTPlugin::pluginServiceInstall(): MQTT not required");
        requestUnload();
        return;
    }

    service_ = CORE::ref<MQTTService>::adopt(new (std::nothrow) MQTTService(params()));
    if (!service_) {
        MFW_LOG(CORE::kLogError,
                "MQTTPlugin::pluginServiceInstall(): Unable to create new service instance");
        mqttConfig::release();
        return;
    }

    MQTTInstall(CORE::readRegistry(kFipsModeValue).value_or(""));

    MqttManager::GetInstance().Start();

    if (!service_->start()) {
        MFW_LOG(CORE::kLogError, "MQTTPlugin::pluginServiceInstall(): Unable to start");
        stopSequence();
    }
}

void MQTTPlugin::pluginServiceUninstall() {
    MFW_LOG(CORE::kLogVerbose, "MQTTPlugin::pluginServiceUninstall(): ");
    std::lock_guard lock(serviceLock_);
    stopSequence();
}

void MQTTPlugin::stopSequence() {
    if (service_) {
        service_->stop();
        service_.reset();
    }
    MqttManager::GetInstance().Stop();
    platform::tls::cleanup();
    mqttConfig::release();
    MqttManager::GetInstance().metricsConsumer().unload();
    // The manager goes with the module: its last threads (the duplicate
    // filter's timer) end here, before PluginExit waits for the module's
    // threads, not when the library is unloaded.
    MqttManager::ReleaseInstance();
}

}  // namespace ndpx
