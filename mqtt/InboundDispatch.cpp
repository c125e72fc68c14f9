// Inbound messages: routed by topic; commands go to the desktop manager
// worker and their answers back to the control plane.

#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/RedactWriter.h"
#include "config/Redaction.h"
#include "mqtt/MqttManager.h"
#include "reports/MessageTransformer.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/Memory.h>

namespace ndpx {

namespace {

// Above this a message is no command, template or token answer, and is
// dropped before it is parsed: parsing it would cost many times its size.
constexpr std::size_t kMaxInboundBytes = std::size_t{256} * 1024;
// After a message this large the heap hands its free pages back.
constexpr std::size_t kReleaseMemoryAfterBytes = std::size_t{64} * 1024;

}  // namespace

void MqttManager::onMessageArrived(std::string topic, std::string payload) {
    OnMessage(topic, payload);
    if (payload.size() >= kReleaseMemoryAfterBytes) {
        std::string().swap(payload);
        platform::releaseFreeMemory();
    }
}

void MqttManager::OnMessage(const std::string& topic, const std::string& payload) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::OnMessage(): Incoming message on topic %s",
            topic.c_str());
    // A topic a local process owns is its alone.
    if (ipc_->ownsTopic(topic)) {
        ipc_->OnMQTTMessage(topic, payload);
        return;
    }
    if (payload.size() > kMaxInboundBytes) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::OnMessage(): Dropping a message of %zu bytes on topic %s: messages "
                "to the agent are at most %zu bytes",
                payload.size(), topic.c_str(), kMaxInboundBytes);
        return;
    }
    const SubscribeTopics topics = subscribeTopics();
    Json::Value root;
    if (!MqttManagerUtil::parseJson(payload, root)) {
        // Masked, escaped and bounded: a malformed template may hold a
        // password, and a garbage message may be megabytes long.
        MFW_LOG(CORE::kLogError, "MqttManager::OnMessage(): Failed to parse incoming message: %s.",
                logSafePayload(payload).c_str());
        if (topic == topics.dtemplate) {
            Json::Value status;
            BuildStatusMessage(status, "TEMPLATE_PARSE_ERROR", 0, {});
            int token = 0;
            DoPublishMessage(publishTopics().desktopStatus, MqttManagerUtil::writeCompact(status),
                             token, 1, false);
        }
        return;
    }
    if (CORE::isLoggingAtLevel(CORE::kLogDebug)) {
        const std::string redacted = RedactWriter::write(root);
        MFW_LOG(CORE::kLogDebug, "MqttManager::OnMessage(): Incoming message: %s",
                redacted.c_str());
    }
    if (!topics.bootstrap.empty() && topic == topics.bootstrap) {
        ProcessBootstrapMessage(root);
    } else if (topic == topics.commands || topic == topics.configuration) {
        ProcessCommandMessage(std::move(root));
    } else if (topic == topics.dtemplate) {
        templates_->HandleMsg(root);
    } else if (topic == topics.otpToken) {
        if (deps_.otpTokenHandler) {
            deps_.otpTokenHandler(root);
        } else {
            certMonitor_->HandleOTPTokenResponseMessage(root);
        }
    } else {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnMessage(): Discarding message for unhandled topic %s",
                topic.c_str());
    }
}

void MqttManager::ProcessBootstrapMessage(const Json::Value& root) {
    MFW_LOG(CORE::kLogInfo, "MqttManager::ProcessBootstrapMessage(): Processing bootstrap message");
    if (!root.isObject() || !root.isMember("SessionReportConfig")) {
        return;
    }
    const Json::Value& config = root["SessionReportConfig"];
    if (config.isObject()) {
        ProcessSessionReportConfigMessage(config);
    } else {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ProcessBootstrapMessage(): Invalid SessionReportConfig");
    }
}

void MqttManager::ProcessSessionReportConfigMessage(const Json::Value& config) {
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::ProcessSessionReportConfigMessage(): Processing session report "
            "configuration");
    auto cfg = this->config();
    std::vector<std::wstring> fields;
    if (JsonUtil::GetArrayProperty(config, "UNWANTEDFIELDS", fields)) {
        cfg->setUnwantedFields(fields);
    }
    if (JsonUtil::GetArrayProperty(config, "UNWANTEDSESSIONFIELDS", fields)) {
        cfg->setUnwantedSessionFields(fields);
    }
}

namespace {

// The command's "ID" as text: a number or a boolean as the text it is
// written as, absent or null as empty. Nothing when it is an object or an
// array, or not valid UTF-8: answering under an altered ID would answer a
// command nobody sent.
std::optional<std::string> commandId(const Json::Value& root) {
    const Json::Value& id = root.isObject() ? root["ID"] : Json::Value::nullSingleton();
    std::string text;
    if (id.isString()) {
        text = id.asString();
    } else if (id.isIntegral() || id.isDouble() || id.isBool()) {
        text = MqttManagerUtil::writeCompact(id);
    } else if (!id.isNull()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ProcessCommandMessage(): Command ID is neither text nor a number, "
                "dropping the message");
        return std::nullopt;
    }
    if (!CORE::isValidUtf8(text)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ProcessCommandMessage(): Command ID is not valid UTF-8, dropping "
                "the message");
        return std::nullopt;
    }
    return text;
}

}  // namespace

void MqttManager::ProcessCommandMessage(Json::Value root) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::ProcessCommandMessage(): Processing command message");
    counters_.commandsReceived.fetch_add(1);
    const auto receivedAt = deps_.time->steadyNow();
    const std::optional<std::string> idText = commandId(root);
    if (!idText) {
        return;
    }
    const std::wstring id = CORE::toWide(*idText);
    if (duplicates_->IsEnabled() && duplicates_->IsDuplicate(id)) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::ProcessCommandMessage(): Found duplicate message for ID: %s, "
                "dropping the message",
                CORE::toUtf8(id).c_str());
        counters_.duplicateCommands.fetch_add(1);
        return;
    }
    Json::Value command;
    root.removeMember("COMMAND", &command);
    if (!command.isString()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ProcessCommandMessage(): COMMAND object is not a string");
        return;
    }
    Json::Value metadata;
    root.removeMember("METADATA", &metadata);
    if (!metadata.isNull() && !metadata.isObject()) {
        MFW_LOG(CORE::kLogWarning, "MqttManager::ProcessCommandMessage(): Metadata is invalid");
        metadata = Json::Value();
    }
    CORE::PropertyBag bag;
    if (!MqttManagerUtil::JSONToBag(root, bag)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ProcessCommandMessage(): Unable to convert Json to PropertyBag");
        return;
    }
    const std::wstring name = CORE::toWide(command.asString());
    {
        CORE::MutexLock lock(pendingLock_);
        pendingCommands_[id] = PendingCommand{name, metadata, receivedAt};
    }
    duplicates_->Record(id);
    if (!CORE::MessageHandler::SendAsyncMsg(L"DesktopManager", name, bag, &onAsyncMsgComplete, this,
                                            id)) {
        // No desktop manager to take it: answer now so the control plane is told.
        CORE::PropertyBag error;
        CORE::serviceOperation::setReplyError(error, CORE::kErrorNotFound,
                                              L"DesktopManager is not available");
        onAsyncMsgComplete(this, id, CORE::kErrorNotFound, error);
    }
}

void MqttManager::onAsyncMsgComplete(void* context, const std::wstring& id, int responseType,
                                     CORE::PropertyBag& response) {
    if (context == nullptr) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::onAsyncMsgComplete(): Invalid context. Cannot respond to id: %s",
                CORE::toUtf8(id).c_str());
        return;
    }
    auto* self = static_cast<MqttManager*>(context);
    std::wstring command;
    Json::Value metadata;
    std::optional<platform::TimeSource::SteadyTime> receivedAt;
    {
        CORE::MutexLock lock(self->pendingLock_);
        auto it = self->pendingCommands_.find(id);
        if (it != self->pendingCommands_.end()) {
            command = std::move(it->second.command);
            metadata = std::move(it->second.metadata);
            receivedAt = it->second.receivedAt;
            self->pendingCommands_.erase(it);
        }
    }
    if (responseType == CORE::kErrorSuccess && CORE::iequals(command, L"StartSession")) {
        const auto cfg = self->config();
        MessageTransformer::AddHostAddress(response, *cfg);
        MessageTransformer::AddListenerPorts(response, *cfg);
    }
    Json::Value answer = MqttManagerUtil::BagToJSON(response);
    if (!answer.isObject()) {
        answer = Json::Value(Json::objectValue);
    }
    answer["ID"] = CORE::toUtf8(id);
    if (!metadata.isNull()) {
        answer["METADATA"] = metadata;
    }
    int token = 0;
    const std::string text = MqttManagerUtil::writeCompact(answer);
    const bool published =
        self->DoPublishMessage(self->publishTopics().response, text, token, 1, false);
    if (published) {
        self->counters_.commandsAnswered.fetch_add(1);
        if (receivedAt) {
            self->counters_.answerLatency.observe(self->deps_.time->steadyNow() - *receivedAt);
        }
    }
    if (published && self->duplicates_->IsEnabled()) {
        // The answer is in the library's persistence now; the command's
        // acknowledgement may not have reached the broker yet.
        self->answered_->record(id);
    }
    if (published && CORE::isLoggingAtLevel(CORE::kLogInfo)) {
        const std::string redacted = RedactWriter::write(answer);
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::PublishMessage(): Published message (%d) to topic %s: %s", token,
                self->publishTopics().response.c_str(), redacted.c_str());
    }
}

}  // namespace ndpx
