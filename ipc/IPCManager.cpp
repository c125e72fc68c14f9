// The bridge's life cycle, admission by include list, and the topic table's
// ties to the MQTT session.

#include "ipc/IPCManager.h"

#include "config/mqttConfig.h"

#include <mfw/moduleLog.h>
#include <platform/ProcessInfo.h>

namespace ndpx {
namespace {

// The executable's base name, looked up by process ID and then checked: the
// process must still be the one that connected (same start, same image, its
// end of the stream still open), so an ID given to a new process in between
// names nothing.
std::optional<std::string> systemBaseName(const ipc::IpcStreamPtr& stream) {
    const auto peer = stream->peerCredentials();
    if (!peer) {
        return std::nullopt;
    }
    std::string error;
    const auto before = platform::processIdentity(peer->pid, error);
    const auto after = before ? platform::processIdentity(peer->pid, error) : std::nullopt;
    if (!before || !after) {
        MFW_LOG(CORE::kLogWarning, "IPCManager::GetProcessBaseName(): Process %d: %s", peer->pid,
                error.c_str());
        return std::nullopt;
    }
    if (after->startTime != before->startTime || after->executable != before->executable ||
        !stream->peerConnected()) {
        MFW_LOG(CORE::kLogWarning,
                "IPCManager::GetProcessBaseName(): Process %d went away while it was looked up",
                peer->pid);
        return std::nullopt;
    }
    return platform::baseName(before->executable);
}

}  // namespace

IPCManager::IPCManager(Dependencies deps) : deps_(std::move(deps)) {
    if (!deps_.processBaseName) {
        deps_.processBaseName = systemBaseName;
    }
}

IPCManager::~IPCManager() {
    Stop();
}

bool IPCManager::Start(IpcMqttSide& mqtt) {
    if (server_) {
        MFW_LOG(CORE::kLogDebug, "IPCManager::Start(): IPC Server already in running state");
        return true;
    }
    if (!deps_.transport) {
        MFW_LOG(CORE::kLogError, "IPCManager::Start(): Failed to create IPC server");
        return false;
    }
    auto server = std::make_unique<IPCLibServer>(deps_.transport);
    {
        CORE::MutexLock lock(mutex_);
        mqtt_ = &mqtt;
        started_ = true;
    }
    IPCLibServer::Callbacks callbacks;
    callbacks.connectRequest = [this](const ipc::IpcStreamPtr& s) { return OnConnectCallback(s); };
    callbacks.connectAccepted = [this](const ipc::IpcStreamPtr& s) { OnConnectAcceptCallback(s); };
    callbacks.receive = [this](const ipc::IpcStreamPtr& s, const ipc::IpcMessage& m) {
        OnReceiveCallback(s, m);
    };
    callbacks.beforeClose = [this](const ipc::IpcStreamPtr& s) { OnBeforeCloseCallback(s); };
    if (server->StartServer(kIpcEndpointGuid, std::move(callbacks)) != ipc::status::kOk) {
        MFW_LOG(CORE::kLogError, "IPCManager::Start(): Failed to start IPC server");
        CORE::MutexLock lock(mutex_);
        mqtt_ = nullptr;
        started_ = false;
        return false;
    }
    server_ = std::move(server);
    MFW_LOG(CORE::kLogDebug, "IPCManager::Start(): Successfully started IPC server.");
    return true;
}

void IPCManager::Stop() {
    if (!server_) {
        MFW_LOG(CORE::kLogDebug, "IPCManager::Stop(): IPCManager wasn't started");
        return;
    }
    // Closing the listener joins the transport's threads: no lock held.
    server_->UnInit();
    server_.reset();
    CORE::MutexLock lock(mutex_);
    streams_.clear();
    mqtt_ = nullptr;
    started_ = false;
}

IpcMqttSide* IPCManager::mqttSide() const {
    CORE::MutexLock lock(mutex_);
    return mqtt_;
}

std::optional<std::string> IPCManager::GetProcessBaseName(const ipc::IpcStreamPtr& stream) {
    auto name = deps_.processBaseName(stream);
    if (!name || name->empty()) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::GetProcessBaseName(): Failed to get base process name");
        return std::nullopt;
    }
    return name;
}

bool IPCManager::OnConnectCallback(const ipc::IpcStreamPtr& stream) {
    const auto name = GetProcessBaseName(stream);
    if (!name) {
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "IPCManager::OnConnectCallback(): Connection request made by process %s, PID : %d",
            name->c_str(), static_cast<int>(stream->peerProcessId()));
    const auto list = deps_.config()->getIpcIncludeList();
    if (list.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "IPCManager::OnConnectCallback(): No entries in includelist, rejecting request");
        return false;
    }
    const auto entry = list.find(*name);
    if (entry == list.end()) {
        MFW_LOG(CORE::kLogWarning,
                "IPCManager::OnConnectCallback(): The process is not in includelist, rejecting "
                "request");
        return false;
    }
    if (entry->second == "0") {
        MFW_LOG(CORE::kLogWarning,
                "IPCManager::OnConnectCallback(): The process is in includelist but has been "
                "disabled, rejecting request");
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "IPCManager::OnConnectCallback(): Accepting connection from %s on stream %s",
            name->c_str(), stream->name().c_str());
    return true;
}

void IPCManager::OnConnectAcceptCallback(const ipc::IpcStreamPtr& stream) {
    auto name = GetProcessBaseName(stream);
    if (!name) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::OnConnectAcceptCallback(): OnConnectAcceptCallback failed to get base "
                "process name");
        return;
    }
    const std::uint32_t pid = stream->peerProcessId();
    MFW_LOG(CORE::kLogInfo,
            "IPCManager::OnConnectAcceptCallback(): Connection request accepted for process %s, "
            "PID : %d",
            name->c_str(), static_cast<int>(pid));
    {
        CORE::MutexLock lock(mutex_);
        streams_[pid] = StreamEntry{stream, std::move(*name)};
    }
    SendBootstrapMessage(pid, stream);
}

void IPCManager::OnBeforeCloseCallback(const ipc::IpcStreamPtr& stream) {
    const std::uint32_t pid = stream->peerProcessId();
    MFW_LOG(CORE::kLogInfo,
            "IPCManager::OnBeforeCloseCallback(): Received close from process with PID = %d",
            static_cast<int>(pid));
    MFW_LOG(CORE::kLogInfo,
            "IPCManager::OnBeforeCloseCallback(): Will attempt to unsubscribe from IPC topics.");
    std::vector<std::string> freed;
    IpcMqttSide* mqtt = nullptr;
    {
        CORE::MutexLock lock(mutex_);
        // Only the stream that closes: a new process may hold the ID by now.
        if (const auto it = streams_.find(pid);
            it != streams_.end() && it->second.stream == stream) {
            streams_.erase(it);
        }
        for (auto it = topics_.begin(); it != topics_.end();) {
            if (it->second == pid) {
                freed.push_back(it->first);
                it = topics_.erase(it);
            } else {
                ++it;
            }
        }
        mqtt = mqtt_;
    }
    if (mqtt == nullptr) {
        MFW_LOG(CORE::kLogError, "IPCManager::OnBeforeCloseCallback(): IPCManager not started");
        return;
    }
    for (const auto& topic : freed) {
        mqtt->unsubscribeIpcTopic(topic);
    }
}

std::vector<std::string> IPCManager::tableTopics(const char* function, int notStartedLevel,
                                                 IpcMqttSide*& mqtt) {
    std::vector<std::string> topics;
    {
        CORE::MutexLock lock(mutex_);
        if (!started_) {
            lock.unlock();
            MFW_LOG(notStartedLevel, "IPCManager::%s(): IPCManager not started", function);
            return {};
        }
        for (const auto& [topic, pid] : topics_) {
            topics.push_back(topic);
        }
        mqtt = mqtt_;
    }
    if (topics.empty()) {
        MFW_LOG(CORE::kLogDebug, "IPCManager::%s(): IPC topics not yet configured", function);
    }
    return topics;
}

void IPCManager::SubscribeToTopics() {
    IpcMqttSide* mqtt = nullptr;
    for (const auto& topic : tableTopics("SubscribeToTopics", CORE::kLogDebug, mqtt)) {
        mqtt->subscribeIpcTopic(topic);
    }
}

void IPCManager::UnsubscribeToTopics() {
    IpcMqttSide* mqtt = nullptr;
    const auto topics = tableTopics("UnsubscribeToTopics", CORE::kLogError, mqtt);
    if (!topics.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "IPCManager::UnsubscribeToTopics(): Will attempt to unsubscribe from IPC topics.");
    }
    for (const auto& topic : topics) {
        mqtt->unsubscribeIpcTopic(topic);
    }
}

bool IPCManager::ownsTopic(const std::string& topic) const {
    CORE::MutexLock lock(mutex_);
    return started_ && topics_.count(topic) != 0;
}

std::size_t IPCManager::clientCount() const {
    CORE::MutexLock lock(mutex_);
    return streams_.size();
}

}  // namespace ndpx
