// The endpoint change ("UpdateMqttEndpoints") and the endpoint properties
// ("GetEndpointProperties"). "MigrateToCorvid" is answered by the plug-in's
// migration manager, which drives this manager from outside.

#include "config/EndpointUrl.h"
#include "mqtt/MqttManager.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

namespace ndpx {
namespace {
constexpr int kErrorInvalidParameter = 87;
}

bool Healing::UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response) {
    const std::string endpoint = CORE::toUtf8(request.get(L"ENDPOINT", L""));
    const auto parsed = parseEndpointUrl(endpoint);
    if (!parsed) {
        MFW_LOG(CORE::kLogError, "MqttManager::UpdateEndpointURL(): Invalid endpoint '%s'",
                endpoint.c_str());
        CORE::serviceOperation::setReplyError(response, kErrorInvalidParameter,
                                              L"ENDPOINT must be scheme://host:port");
        return false;
    }
    const std::string current = manager_.currentEndpoint();
    if (endpoint == current) {
        manager_.endpointOnly_ = true;
        response.set(L"RESULT", L"UNCHANGED");
        return true;
    }
    auto cfg = manager_.config();
    const int attempts = cfg->getEndpointChangeAttempts();
    {
        CORE::MutexLock lock(changeLock_);
        previousEndpoint_ = current;
        attemptsLeft_ = attempts;
    }
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::UpdateEndpointURL(): Changing endpoint from %s to %s (%d attempts)",
            current.c_str(), endpoint.c_str(), attempts);
    cfg->store().set(kNodeManagerKey, "mqtt_EndpointUrl",
                     platform::SettingValue::ofString(endpoint));
    cfg->setMonitoringEndpoint(parsed->host.find(':') == std::string::npos
                                   ? parsed->host + ":" + std::to_string(parsed->port)
                                   : "[" + parsed->host + "]:" + std::to_string(parsed->port));
    StartTearDownThread(true);
    response.set(L"RESULT", L"PENDING");
    return true;
}

bool MqttManager::UpdateEndpointURL(CORE::PropertyBag& request, CORE::PropertyBag& response) {
    return healing_.UpdateEndpointURL(request, response);
}

bool MqttManager::GetEndpointProperties(CORE::PropertyBag&, CORE::PropertyBag& response) {
    const auto last = info_.lastAttempt();
    CORE::PropertyBag global;
    global.set(L"currentEndpoint", CORE::toWide(last.current));
    global.set(L"lastAttemptEndpoint", CORE::toWide(last.endpoint));
    global.setInt(L"lastAttemptEndpointError", last.result);
    CORE::PropertyBag edge;
    edge.set(L"endpoint", CORE::toWide(config()->getMonitoringEndpoint()));
    CORE::PropertyBag mqtt;
    mqtt.setBag(L"global", global);
    mqtt.setBag(L"edge", edge);
    response.setBag(L"mqtt", mqtt);
    return true;
}

bool MqttManager::HandleUpdateEndpointRetries(bool tlsFailure) {
    return healing_.HandleUpdateEndpointRetries(tlsFailure);
}

bool MqttManager::StartHealingThread(const std::string& reason) {
    return healing_.StartHealingThread(reason);
}

void MqttManager::StartTearDownThread(bool reconnect) {
    healing_.StartTearDownThread(reconnect);
}

bool MqttManager::PerformReconnect() {
    return healing_.PerformReconnect();
}

}  // namespace ndpx
