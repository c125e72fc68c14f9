#pragma once
// The local IPC bridge. Processes named in the include list connect to the
// IPC server, subscribe to MQTT topics and publish on them through the
// agent's session. The first process to subscribe a topic owns it and gets
// its messages; a process that goes away frees its topics. Every connecting
// process is told the agent's identity ("setidentity"), and again when it
// changes.
//
// Threads: transport events arrive on the transport's dispatch thread, MQTT
// messages on the session's, start and stop on the manager's. One mutex
// guards the two tables; the MQTT side and the streams are called with it
// released, streams kept alive by shared references.

#include "ipc/IPCLibServer.h"

#include <mfw/corelock.h>

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ndpx {

class mqttConfig;

// What the bridge needs of the MQTT session.
class IpcMqttSide {
public:
    virtual ~IpcMqttSide() = default;
    virtual void subscribeIpcTopic(const std::string& topic) = 0;
    virtual void unsubscribeIpcTopic(const std::string& topic) = 0;
    virtual bool publishIpcMessage(const std::string& topic, const std::string& payload, int qos,
                                   bool retain) = 0;
};

class IPCManager {
public:
    struct Dependencies {
        std::function<std::shared_ptr<mqttConfig>()> config;
        // The transport (defaultIpcTransport() for this system's own).
        IPCLibServer::ContextFactory transport;
        // The executable's base name of the connected process; left empty,
        // read from the system and checked against the stream's peer.
        std::function<std::optional<std::string>(const ipc::IpcStreamPtr&)> processBaseName;
    };

    explicit IPCManager(Dependencies deps);
    ~IPCManager();
    IPCManager(const IPCManager&) = delete;
    IPCManager& operator=(const IPCManager&) = delete;

    bool Start(IpcMqttSide& mqtt) MFW_EXCLUDES(mutex_);
    void Stop() MFW_EXCLUDES(mutex_);

    // (Un)subscribes every topic of the table; the table stays, so the
    // subscriptions survive reconnects.
    void SubscribeToTopics() MFW_EXCLUDES(mutex_);
    void UnsubscribeToTopics() MFW_EXCLUDES(mutex_);
    // Does a local process own `topic`? Its messages then go only to it.
    bool ownsTopic(const std::string& topic) const MFW_EXCLUDES(mutex_);
    void OnMQTTMessage(const std::string& topic, const std::string& payload) MFW_EXCLUDES(mutex_);
    // Local processes connected now.
    std::size_t clientCount() const MFW_EXCLUDES(mutex_);
    // The identity changed: every connected process is told again.
    void OnBootstrapRequired() MFW_EXCLUDES(mutex_);

    // The transport's events (public for the tests that drive them).
    bool OnConnectCallback(const ipc::IpcStreamPtr& stream);
    void OnConnectAcceptCallback(const ipc::IpcStreamPtr& stream) MFW_EXCLUDES(mutex_);
    void OnReceiveCallback(const ipc::IpcStreamPtr& stream, const ipc::IpcMessage& message);
    void OnBeforeCloseCallback(const ipc::IpcStreamPtr& stream) MFW_EXCLUDES(mutex_);

private:
    struct StreamEntry {
        ipc::IpcStreamPtr stream;
        std::string baseName;
    };

    std::optional<std::string> GetProcessBaseName(const ipc::IpcStreamPtr& stream);
    void ProcessIncomingMessage(std::uint32_t pid, const std::uint8_t* data, std::size_t size);
    bool HandleSubscribeMessage(std::uint32_t pid, const Json::Value& message) MFW_EXCLUDES(mutex_);
    bool HandlePublishMessage(std::uint32_t pid, const Json::Value& message) MFW_EXCLUDES(mutex_);
    void SendBootstrapMessage(std::uint32_t pid, const ipc::IpcStreamPtr& stream);
    bool SendIPCMessage(const std::string& topic, const ipc::IpcStreamPtr& stream,
                        const std::string& payload);
    IpcMqttSide* mqttSide() const MFW_EXCLUDES(mutex_);
    // The table's topics and the MQTT side, copied under the lock; none,
    // with `function`'s line, when not started or when the table is empty.
    std::vector<std::string> tableTopics(const char* function, int notStartedLevel,
                                         IpcMqttSide*& mqtt) MFW_EXCLUDES(mutex_);

    Dependencies deps_;
    mutable CORE::Mutex mutex_;
    std::unordered_map<std::uint32_t, StreamEntry> streams_ MFW_GUARDED_BY(mutex_);
    std::unordered_map<std::string, std::uint32_t> topics_ MFW_GUARDED_BY(mutex_);
    IpcMqttSide* mqtt_ MFW_GUARDED_BY(mutex_) = nullptr;
    bool started_ MFW_GUARDED_BY(mutex_) = false;
    // Started and stopped on the manager's threads only.
    std::unique_ptr<IPCLibServer> server_;
};

}  // namespace ndpx
