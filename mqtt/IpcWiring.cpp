// The manager as the IPC bridge's MQTT side, and the bridge's part of the
// connection's life.

#include "config/mqttConfig.h"
#include "mqtt/MqttManager.h"

#include <mfw/moduleLog.h>

namespace ndpx {

bool MqttManager::StartIPCServer() {
    if (!config()->getIPCServerEnabled()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::StartIPCServer(): IPC server disabled");
        return true;
    }
    // A bridge that cannot start leaves the desktop's own session alone: it
    // is logged, and the next connection tries again.
    ipc_->Start(*this);
    return true;
}

void MqttManager::renewIpcSession() {
    ipc_->SubscribeToTopics();
    const std::string identity = config()->getAgentIdentity();
    if (!ipcIdentity_.empty() && identity != ipcIdentity_) {
        ipc_->OnBootstrapRequired();
    }
    ipcIdentity_ = identity;
}

void MqttManager::subscribeIpcTopic(const std::string& topic) {
    SubscribeToIPCTopic(topic);
}

void MqttManager::unsubscribeIpcTopic(const std::string& topic) {
    UnsubscribeToTopic(topic);
}

bool MqttManager::publishIpcMessage(const std::string& topic, const std::string& payload, int qos,
                                    bool retain) {
    return PublishIPCMessage(topic, payload, qos, retain);
}

}  // namespace ndpx
