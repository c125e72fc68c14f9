// Everything the desktop sends leaves through here.

#include "config/MqttManagerUtil.h"
#include "config/RedactWriter.h"
#include "mqtt/MqttManager.h"
#include "reports/MessageTransformer.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <climits>

namespace ndpx {
namespace {

std::atomic<std::uint32_t> g_statusSequence{0};

constexpr const char* kAgentVersionsKey = "HKLM\\Software\\Brasswick, Inc.\\AgentVersions";

// A registry key and its subkeys as a PropertyBag.
CORE::PropertyBag readKeyAsBag(platform::SettingsStore& store, const std::string& key) {
    CORE::PropertyBag bag;
    for (const auto& [name, value] : store.listValues(key)) {
        bag.add(CORE::toWide(name), CORE::toWide(value.asText()));
    }
    for (const auto& sub : store.listSubkeys(key)) {
        std::string path = key;
        path.append("\\").append(sub);
        bag.addBag(CORE::toWide(sub), readKeyAsBag(store, path));
    }
    return bag;
}

}  // namespace

bool MqttManager::DoPublishMessage(const std::string& topic, const std::string& payload, int& token,
                                   int qos, bool retained, MqttClient::SuccessFn onSuccess) {
    if (shutdownEvent_.isSet()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::DoPublishMessage(): Not publishing message, stopping");
        return refusePublication();
    }
    if (!pairedStateKnown_) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::DoPublishMessage(): Not publishing message, paired state is "
                "undetermined");
        return refusePublication();
    }
    if (topic.empty()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::DoPublishMessage(): Message topic is empty, unable to publish msg");
        return refusePublication();
    }
    if (payload.size() > static_cast<std::size_t>(INT32_MAX)) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Message too large to publish for topic %s",
                topic.c_str());
        return refusePublication();
    }
    // Not connected: the client keeps the publication until it is again.
    const bool online = connection_.isConnected();
    const int rc = connection_.publish(topic, payload, qos, retained, token, std::move(onSuccess),
                                       [this](const MqttFailure& f) { OnPublishFailure(f); });
    if (rc == MqttConnection::kNoClient) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Unable to send message. MQTT client doesn't "
                "exist");
        return refusePublication();
    }
    if (rc != kMqttSuccess) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::DoPublishMessage(): Failed to send message on topic %s. Error: %d",
                topic.c_str(), rc);
        return refusePublication();
    }
    if (!online) {
        bufferedPublications_.fetch_add(1);
    }
    return true;
}

bool MqttManager::refusePublication() {
    droppedPublications_.fetch_add(1);
    return false;
}

bool MqttManager::PublishMessage(const std::string& topic, const Json::Value& json, bool reliable,
                                 MqttClient::SuccessFn onSuccess) {
    int token = 0;
    if (!DoPublishMessage(topic, MqttManagerUtil::writeCompact(json), token, reliable ? 2 : 0,
                          false, std::move(onSuccess))) {
        return false;
    }
    if (CORE::isLoggingAtLevel(CORE::kLogInfo)) {
        // The redacting writer: secrets in the message never reach the log.
        const std::string redacted = RedactWriter::write(json);
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::PublishMessage(): Published message (%d) to topic %s: %s", token,
                topic.c_str(), redacted.c_str());
    }
    return true;
}

void MqttManager::BuildStatusMessage(Json::Value& out, const std::string& status, int detailKind,
                                     const std::string& detail) {
    const std::uint32_t seq = g_statusSequence.fetch_add(1);
    out = Json::Value(Json::objectValue);
    out["status"] = status;
    if (detailKind == 1 && !detail.empty()) {
        out["errMsg"] = detail;
    }
    if (status == "AVAILABLE") {
        {
            CORE::MutexLock lock(materialLock_);
            out["publicKey"] = publicKey_;
        }
        out["agentVersions"] =
            MqttManagerUtil::BagToJSON(readKeyAsBag(config()->store(), kAgentVersionsKey));
        if (detailKind == 2 && !detail.empty()) {
            out["deviceId"] = detail;
        }
    }
    out["seqno"] = Json::UInt(seq);
    out["guid"] = info_.guid();
}

bool MqttManager::PublishDesktopStatus(const std::string& status, int qos, int detailKind,
                                       const std::string& detail) {
    Json::Value message;
    BuildStatusMessage(message, status, detailKind, detail);
    int token = 0;
    return DoPublishMessage(publishTopics().desktopStatus, MqttManagerUtil::writeCompact(message),
                            token, qos, false);
}

bool MqttManager::PublishDesktopNotification(const CORE::PropertyBag& bag) {
    const std::wstring body = bag.get(L"BODY", L"");
    if (body == L"AGENT_UPDATE_NOTIFICATION") {
        const CORE::PropertyBag* properties = bag.getBag(L"PROPERTIES");
        if (properties == nullptr || properties->empty()) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::PublishDesktopNotification(): empty properties bag for "
                    "notification '%s'",
                    CORE::toUtf8(body).c_str());
            return false;
        }
        return PublishMessage(publishTopics().response, MqttManagerUtil::BagToJSON(*properties),
                              true);
    }
    return PublishMessage(publishTopics().notification, MqttManagerUtil::BagToJSON(bag), false);
}

bool MqttManager::SendSessionReport(const CORE::PropertyBag& bag) {
    if (shutdownEvent_.isSet()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::SendSessionReport(): Not publishing session report, stopping");
        return false;
    }
    if (!pairedFlag_) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::SendSessionReport(): Not publishing session report, not paired");
        return false;
    }
    CORE::PropertyBag report = bag;
    MessageTransformer::UpdateSessionReport(report, *config());
    return PublishMessage(publishTopics().sessionReport, MqttManagerUtil::BagToJSON(report), false);
}

bool MqttManager::PublishSessionMessage(const CORE::PropertyBag& bag) {
    return PublishMessage(publishTopics().sessionStatus, MqttManagerUtil::BagToJSON(bag), true);
}

bool MqttManager::PublishEvent(const CORE::PropertyBag& bag) {
    eventLogger_.RecordEvent(bag);  // its outcome does not decide the publish
    return PublishMessage(publishTopics().eventLogger, MqttManagerUtil::BagToJSON(bag), true);
}

bool MqttManager::PublishIPCMessage(const std::string& topic, const std::string& payload, int qos,
                                    bool retained) {
    int token = 0;
    if (!DoPublishMessage(topic, payload, token, qos, retained)) {
        return false;
    }
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::PublishIPCMessage(): Published IPC message (%d) to topic %s", token,
            topic.c_str());
    return true;
}

void MqttManager::OnPublishFailure(const MqttFailure& f) {
    MFW_LOG(CORE::kLogVerbose,
            "MqttManager::OnPublishFailure(): Failed to publish message Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
    const auto failed = failedPublications_.fetch_add(1) + 1;
    if (f.code == kMqttSessionLost) {
        // The broker kept no session for us: this publication is lost.
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnPublishFailure(): publication %d lost with the broker session "
                "(%llu lost so far)",
                f.token, static_cast<unsigned long long>(failed));
    }
}

void MqttManager::OnDeliveryComplete(int token) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::OnDeliveryComplete(): Delivery complete (%d)", token);
}

}  // namespace ndpx
