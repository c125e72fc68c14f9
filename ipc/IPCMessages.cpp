// What flows through the bridge: a process's subscribe and publish messages,
// MQTT messages to the owning process, and the identity bootstrap.

#include "config/MqttManagerUtil.h"
#include "config/RedactWriter.h"
#include "config/mqttConfig.h"
#include "ipc/IPCManager.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <json/reader.h>

#include <cstring>

namespace ndpx {
namespace {

// Beyond these a process is refused more, so that none can grow the agent's
// tables (and its broker subscriptions) without bound.
constexpr std::size_t kMaxTopicsPerProcess = 256;
constexpr std::size_t kMaxTopicBytes = 1024;

bool invalid(const char* function, const char* property) {
    MFW_LOG(CORE::kLogError, "IPCManager::%s(): Invalid %s property.", function, property);
    return false;
}

// The outgoing message: compact JSON on one line, sent with its NUL.
std::vector<std::uint8_t> outgoing(const std::string& topic, const std::string& payload) {
    Json::Value v(Json::objectValue);
    v["type"] = "message";
    v["topic"] = topic;
    v["message"] = CORE::base64Encode(payload);
    const std::string text = MqttManagerUtil::writeCompact(v) + "\n";
    std::vector<std::uint8_t> bytes(text.begin(), text.end());
    bytes.push_back(0);
    return bytes;
}

}  // namespace

void IPCManager::OnReceiveCallback(const ipc::IpcStreamPtr& stream,
                                   const ipc::IpcMessage& message) {
    const std::uint32_t pid = stream->peerProcessId();
    MFW_LOG(CORE::kLogDebug,
            "IPCManager::OnReceiveCallback(): Received incoming message from process %lu of size "
            "%d",
            static_cast<unsigned long>(pid), static_cast<int>(message.size));
    ProcessIncomingMessage(pid, message.data, message.size);
}

void IPCManager::ProcessIncomingMessage(std::uint32_t pid, const std::uint8_t* data,
                                        std::size_t size) {
    Json::Value message;
    std::string errors;
    const auto* text = reinterpret_cast<const char*>(data);
    // A terminating NUL is allowed; one inside would end the parser's input
    // early and hide what follows it.
    if (data != nullptr && size > 0 && text[size - 1] == '\0') {
        --size;
    }
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    bool parsed = false;
    try {
        parsed = data != nullptr && std::memchr(text, 0, size) == nullptr &&
                 reader->parse(text, text + size, &message, &errors);
    } catch (const Json::Exception&) {
        // Nested past the reader's limit: a local process must not be able
        // to end the agent with it.
    }
    if (!parsed) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::ProcessIncomingMessage(): Failed to parse incoming json message");
        return;
    }
    if (!message.isObject()) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::ProcessIncomingMessage(): Incoming Json::Value is not valid.");
        return;
    }
    MFW_LOG(CORE::kLogDebug, "IPCManager::ProcessIncomingMessage(): Incoming message: %s",
            RedactWriter::write(message).c_str());
    const Json::Value& type = message["type"];
    if (!type.isString()) {
        invalid("ProcessIncomingMessage", "type");
        return;
    }
    const std::string kind = type.asString();
    MFW_LOG(CORE::kLogDebug, "IPCManager::ProcessIncomingMessage(): Processing '%s' message",
            kind.c_str());
    if (kind == "subscribe") {
        HandleSubscribeMessage(pid, message);
    } else if (kind == "publish") {
        HandlePublishMessage(pid, message);
    } else {
        MFW_LOG(CORE::kLogWarning, "IPCManager::ProcessIncomingMessage(): Unknown message type %s",
                kind.c_str());
    }
}

bool IPCManager::HandleSubscribeMessage(std::uint32_t pid, const Json::Value& message) {
    const Json::Value& field = message["topics"];
    if (!field.isString()) {
        return invalid("HandleSubscribeMessage", "topics");
    }
    const std::string topics = field.asString();
    if (topics.empty()) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::HandleSubscribeMessage(): Empty topics field not allowed");
        return false;
    }
    std::vector<std::string> items;
    for (std::size_t from = 0;;) {
        const auto comma = topics.find(',', from);
        std::string item = topics.substr(from, comma - from);
        if (!item.empty()) {
            items.push_back(std::move(item));
        }
        if (comma == std::string::npos) {
            break;
        }
        from = comma + 1;
    }
    if (items.empty()) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::HandleSubscribeMessage(): No valid topics to subscribe");
        return false;
    }
    std::vector<std::string> added;
    IpcMqttSide* mqtt = nullptr;
    {
        CORE::MutexLock lock(mutex_);
        std::size_t held = 0;
        for (const auto& [topic, owner] : topics_) {
            held += owner == pid ? 1 : 0;
        }
        for (auto& topic : items) {
            if (topic.size() > kMaxTopicBytes || held >= kMaxTopicsPerProcess) {
                MFW_LOG(CORE::kLogWarning,
                        "IPCManager::HandleSubscribeMessage(): Process %lu may hold %zu topics of "
                        "at most %zu bytes each; ignoring a topic of %zu bytes",
                        static_cast<unsigned long>(pid), kMaxTopicsPerProcess, kMaxTopicBytes,
                        topic.size());
                continue;
            }
            // Messages are routed by exact topic: a filter's messages would
            // arrive on topics no process owns, and be lost.
            if (topic.find_first_of("+#") != std::string::npos) {
                MFW_LOG(CORE::kLogWarning,
                        "IPCManager::HandleSubscribeMessage(): Wildcard topics are not supported, "
                        "ignoring %s",
                        topic.c_str());
                continue;
            }
            if (topics_.count(topic) != 0) {
                MFW_LOG(CORE::kLogWarning,
                        "IPCManager::HandleSubscribeMessage(): Topic already subscribed, "
                        "ignoring %s",
                        topic.c_str());
                continue;
            }
            MFW_LOG(CORE::kLogDebug,
                    "IPCManager::HandleSubscribeMessage(): Subscribing to topic %s on behalf of "
                    "process %lu",
                    topic.c_str(), static_cast<unsigned long>(pid));
            topics_.emplace(topic, pid);
            ++held;
            added.push_back(std::move(topic));
        }
        mqtt = mqtt_;
    }
    if (mqtt == nullptr) {
        // Recorded: the next SubscribeToTopics subscribes them.
        MFW_LOG(CORE::kLogError, "IPCManager::SubscribeToTopics(): IPCManager not started");
        return true;
    }
    for (const auto& topic : added) {
        mqtt->subscribeIpcTopic(topic);
    }
    return true;
}

bool IPCManager::HandlePublishMessage(std::uint32_t /*pid*/, const Json::Value& message) {
    const char* kFunction = "HandlePublishMessage";
    const Json::Value& topic = message["topic"];
    if (!topic.isString()) {
        return invalid(kFunction, "topic");
    }
    const Json::Value& body = message["message"];
    if (!body.isString()) {
        return invalid(kFunction, "message");
    }
    const Json::Value& qos = message["qos"];
    if (!qos.isNull() && !qos.isInt64()) {
        return invalid(kFunction, "qos");
    }
    const Json::Value& retain = message["retain"];
    if (!retain.isNull() && !retain.isInt64()) {
        return invalid(kFunction, "retain");
    }
    const std::int64_t level = qos.isNull() ? 0 : qos.asInt64();
    if (level < 0 || level > 2) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::HandlePublishMessage(): Invalid %s property (out of range): %d", "qos",
                static_cast<int>(level));
        return false;
    }
    if (topic.asString().empty()) {
        MFW_LOG(CORE::kLogError, "IPCManager::HandlePublishMessage(): Topic cannot be empty");
        return false;
    }
    const auto payload = CORE::base64Decode(body.asString());
    if (!payload) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::HandlePublishMessage(): Invalid message property (not base64).");
        return false;
    }
    IpcMqttSide* mqtt = mqttSide();
    if (mqtt == nullptr) {
        MFW_LOG(CORE::kLogError, "IPCManager::HandlePublishMessage(): IPCManager not started");
        return false;
    }
    return mqtt->publishIpcMessage(topic.asString(), std::string(payload->begin(), payload->end()),
                                   static_cast<int>(level),
                                   !retain.isNull() && retain.asInt64() != 0);
}

void IPCManager::OnMQTTMessage(const std::string& topic, const std::string& payload) {
    ipc::IpcStreamPtr stream;
    {
        CORE::MutexLock lock(mutex_);
        if (!started_) {
            lock.unlock();
            MFW_LOG(CORE::kLogDebug, "IPCManager::OnMQTTMessage(): IPCManager not started");
            return;
        }
        const auto owner = topics_.find(topic);
        if (owner == topics_.end()) {
            lock.unlock();
            MFW_LOG(CORE::kLogError,
                    "IPCManager::OnMQTTMessage(): Unable to handle topic %s, ignoring MQTT message",
                    topic.c_str());
            return;
        }
        const auto entry = streams_.find(owner->second);
        if (entry == streams_.end()) {
            const auto pid = owner->second;
            lock.unlock();
            MFW_LOG(CORE::kLogError,
                    "IPCManager::OnMQTTMessage(): Unable to find stream for process %lu",
                    static_cast<unsigned long>(pid));
            return;
        }
        stream = entry->second.stream;
    }
    MFW_LOG(CORE::kLogDebug, "IPCManager::OnMQTTMessage(): Received MQTT message on topic %s",
            topic.c_str());
    SendIPCMessage(topic, stream, payload);
}

bool IPCManager::SendIPCMessage(const std::string& topic, const ipc::IpcStreamPtr& stream,
                                const std::string& payload) {
    const int status = stream->sendAsync(outgoing(topic, payload), [](bool delivered) {
        MFW_LOG(CORE::kLogDebug,
                delivered
                    ? "IPCManager::SendIPCMessage::<lambda_1>::operator ()(): IPC message delivery "
                      "successful"
                    : "IPCManager::SendIPCMessage::<lambda_1>::operator ()(): IPC message delivery "
                      "failed");
    });
    if (status != ipc::status::kOk) {
        MFW_LOG(CORE::kLogError, "IPCManager::SendIPCMessage(): Failed to send : status [%d]",
                status);
        return false;
    }
    return true;
}

void IPCManager::SendBootstrapMessage(std::uint32_t pid, const ipc::IpcStreamPtr& stream) {
    MFW_LOG(CORE::kLogDebug,
            "IPCManager::SendBootstrapMessage(): Sending bootstrap msg to process id: %d",
            static_cast<int>(pid));
    auto cfg = deps_.config();
    Json::Value data(Json::objectValue);
    data["edgeid"] = cfg->getEdgeId();
    data["shorttemplateid"] = cfg->getShortTemplateId();
    data["vmid"] = cfg->getVmId();
    data["identity"] = cfg->getAgentIdentity();
    Json::Value bootstrap(Json::objectValue);
    bootstrap["version"] = 1;
    bootstrap["type"] = "setidentity";
    bootstrap["data"] = data;
    const std::string text = MqttManagerUtil::writeCompact(bootstrap);
    const int status = stream->sendAsync(outgoing("core", text), [pid, text](bool delivered) {
        if (!delivered) {
            MFW_LOG(CORE::kLogError,
                    "IPCManager::SendBootstrapMessage::<lambda_1>::operator ()(): Failed to send "
                    "bootstrap msg to process %d. Msg: %s. Status: %d.",
                    static_cast<int>(pid), text.c_str(), ipc::status::kClosed);
        }
    });
    if (status != ipc::status::kOk) {
        MFW_LOG(CORE::kLogError,
                "IPCManager::SendBootstrapMessage::<lambda_1>::operator ()(): Failed to send "
                "bootstrap msg to process %d. Msg: %s. Status: %d.",
                static_cast<int>(pid), text.c_str(), status);
    }
}

void IPCManager::OnBootstrapRequired() {
    std::vector<std::pair<std::uint32_t, ipc::IpcStreamPtr>> streams;
    {
        CORE::MutexLock lock(mutex_);
        if (!started_) {
            lock.unlock();
            MFW_LOG(CORE::kLogError,
                    "IPCManager::OnBootstrapRequired(): Unable to send bootstrap details. IPC "
                    "Server not started");
            return;
        }
        for (const auto& [pid, entry] : streams_) {
            streams.emplace_back(pid, entry.stream);
        }
    }
    MFW_LOG(CORE::kLogInfo, "IPCManager::OnBootstrapRequired(): Bootstrap required.");
    for (const auto& [pid, stream] : streams) {
        SendBootstrapMessage(pid, stream);
    }
}

}  // namespace ndpx
