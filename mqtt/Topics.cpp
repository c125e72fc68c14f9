// Topic names and subscriptions.

#include "mqtt/MqttManager.h"

#include <mfw/moduleLog.h>

namespace ndpx {

std::string formatTopic(const char* templ, const std::string& id) {
    std::string out;
    const std::string t = templ;
    const auto at = t.find("%s");
    out = at == std::string::npos ? t : t.substr(0, at) + id + t.substr(at + 2);
    if (out.size() > 260) {
        out.resize(260);
    }
    return out;
}

SubscribeTopics MqttManager::subscribeTopics() const {
    std::lock_guard lock(topicsLock_);
    return subscribeTopics_;
}

PublishTopics MqttManager::publishTopics() const {
    std::lock_guard lock(topicsLock_);
    return publishTopics_;
}

bool MqttManager::ConfigureTopicNames() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::ConfigureTopicNames(): Configuring topic names.");
    auto cfg = config();
    const std::string edgeId = cfg->getEdgeId();
    std::string desktopId;
    std::string configId;
    if (!edgeId.empty()) {
        desktopId = edgeId + "/" + cfg->getVmId();
        configId = edgeId + "/" + cfg->getShortTemplateId();
    } else {
        desktopId = cfg->getAgentIdentity();
        configId = cfg->getTemplateId();
    }
    std::string bootstrap;
    if (deps_.connectionMaterial) {
        if (auto material = deps_.connectionMaterial()) {
            bootstrap = material->bootstrapTopic;
        }
    }
    if (bootstrap.size() > 260) {
        bootstrap.resize(260);
    }

    SubscribeTopics sub;
    PublishTopics pub;
    sub.bootstrap = bootstrap;
    sub.commands = formatTopic("desktop/%s/agent/sessions/commands", desktopId);
    sub.dtemplate = formatTopic("desktop/%s/agent/receive/dtemplate", desktopId);
    sub.configuration = formatTopic("desktop/%s/configuration", configId);
    sub.otpToken = formatTopic("desktop/%s/agent/credentials/token", desktopId);
    pub.desktopStatus = formatTopic("desktop/%s/agent/status", desktopId);
    pub.response = formatTopic("desktop/%s/agent/sessions/response", desktopId);
    pub.sessionStatus = formatTopic("desktop/%s/agent/sessions/status", desktopId);
    pub.sessionReport = formatTopic("desktop/%s/agent/sessions/report", desktopId);
    pub.otpRequest = formatTopic("desktop/%s/agent/credentials/request", desktopId);
    pub.notification = formatTopic("desktop/%s/agent/notification", desktopId);
    pub.eventLogger = formatTopic("desktop/%s/agent/eventlogger", desktopId);
    {
        std::lock_guard lock(topicsLock_);
        if (!subscribeTopics_.empty()) {
            pendingTopics_ = subscribeTopics_;
        }
        subscribeTopics_ = sub;
        publishTopics_ = pub;
    }
    needIdFlag_ = true;

    const std::pair<const char*, const std::string*> logged[] = {
        {"commandsTopic", &sub.commands},
        {"dTemplateTopic", &sub.dtemplate},
        {"configTopic", &sub.configuration},
        {"otpTokenTopic", &sub.otpToken},
        {"desktopStatusTopic", &pub.desktopStatus},
        {"responseTopic", &pub.response},
        {"sessionStatusTopic", &pub.sessionStatus},
        {"sessionStatusReportTopic", &pub.sessionReport},
        {"otpRequestTopic", &pub.otpRequest},
        {"desktopNotificationTopic", &pub.notification},
        {"eventLoggerTopic", &pub.eventLogger},
    };
    MFW_LOG(CORE::kLogDebug, "MqttManager::ConfigureTopicNames(): Set bootstrapTopic: %s",
            sub.bootstrap.c_str());
    for (const auto& [name, topic] : logged) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::ConfigureTopicNames(): Set %s: %s", name,
                topic->c_str());
    }
    return true;
}

void MqttManager::SubscribeToTopics() {
    const SubscribeTopics topics = subscribeTopics();
    std::shared_lock lock(clientLock_);
    if (!client_) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::SubscribeToTopics(): Unable to subscribe to topics, MQTT client "
                "doesn't exist.");
        return;
    }
    auto subscribe = [this](int index, const std::string& topic) {
        return client_->subscribe(
            topic, 1, [this, index](int) { OnSubscribeSuccess(index); },
            [this, index](const MqttFailure& f) { OnSubscribeFailure(index, f); });
    };
    // A failed request does not stop the ones after it.
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToTopics(): Subscribing to bootstrap topic: %s",
            topics.bootstrap.c_str());
    if (const int rc = subscribe(kSubBootstrap, topics.bootstrap); rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToTopics(): Failed to subscribe to bootstrap topic, return "
                "code %d",
                rc);
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToTopics(): Subscribing to command topic: %s",
            topics.commands.c_str());
    if (const int rc = subscribe(kSubCommands, topics.commands); rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToTopics(): Failed to subscribe to commands topic, return "
                "code %d",
                rc);
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToTopics(): Subscribing to DTemplate topic: %s",
            topics.dtemplate.c_str());
    if (const int rc = subscribe(kSubDTemplate, topics.dtemplate); rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToTopics(): Failed to subscribe to dtemplate topic, return "
                "code %d",
                rc);
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::SubscribeToTopics(): Subscribing to configuration topic: %s",
            topics.configuration.c_str());
    if (const int rc = subscribe(kSubConfiguration, topics.configuration); rc != 0) {
        MFW_LOG(
            CORE::kLogError,
            "MqttManager::SubscribeToTopics(): Failed to subscribe to config topic, return code "
            "%d",
            rc);
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToTopics(): Subscribing to OTP topic: %s",
            topics.otpToken.c_str());
    if (const int rc = subscribe(kSubOtpToken, topics.otpToken); rc != 0) {
        MFW_LOG(
            CORE::kLogError,
            "MqttManager::SubscribeToTopics(): Failed to subscribe to OTP topic, return code %d",
            rc);
    }
}

void MqttManager::OnSubscribeSuccess(int index) {
    subscribedMask_.fetch_or(1u << index);
    const SubscribeTopics topics = subscribeTopics();
    const std::string* topic = nullptr;
    switch (index) {
        case kSubBootstrap:
            topic = &topics.bootstrap;
            break;
        case kSubCommands:
            topic = &topics.commands;
            break;
        case kSubConfiguration:
            topic = &topics.configuration;
            break;
        case kSubDTemplate:
            topic = &topics.dtemplate;
            break;
        case kSubOtpToken:
            topic = &topics.otpToken;
            break;
        default:
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::OnSubscribeSuccess(): Subscribed to unknown topic");
            break;
    }
    if (topic != nullptr) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::OnSubscribeSuccess(): Successfully subscribed to topic: %s",
                topic->c_str());
    }
    if (index == kSubDTemplate && needIdFlag_) {
        Json::Value status;
        BuildStatusMessage(status, "NEED_ID", 0, {});
        PublishMessage(publishTopics().desktopStatus, status, true);
    }
    auto cfg = config();
    if (subscribedMask_.load() == kAllSubscribed &&
        cfg->getMigrationStatus() == static_cast<int>(MigrationStatus::Bootstrap)) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::OnSubscribeSuccess(): Successfully connected after bootstrap, set "
                "migration state to connected");
        cfg->setMigrationStatus(static_cast<int>(MigrationStatus::Connected));
    }
}

void MqttManager::OnSubscribeFailure(int index, const MqttFailure& f) {
    const char* what = "unknown topic";
    switch (index) {
        case kSubBootstrap:
            what = "bootstrap topic";
            break;
        case kSubCommands:
            what = "command topic";
            break;
        case kSubConfiguration:
            what = "config topic";
            break;
        case kSubDTemplate:
            what = "template topic";
            break;
        default:
            // The token topic is reported as unknown, as it always was.
            break;
    }
    MFW_LOG(CORE::kLogError,
            "MqttManager::OnSubscribeFailure(): Failed to subscribe to %s Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            what, f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
}

void MqttManager::UnsubscribeToTopic(const std::string& topic) {
    if (topic.empty()) {
        return;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::UnsubscribeToTopic(): Unsubscribing from topic: %s",
            topic.c_str());
    std::shared_lock lock(clientLock_);
    if (!client_) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::UnsubscribeToTopic(): Failed to unsubscribe to topic %s. No MQTT "
                "client",
                topic.c_str());
        return;
    }
    const int rc = client_->unsubscribe(
        topic,
        [topic](int) {
            MFW_LOG(CORE::kLogDebug,
                    "MqttManager::unsub_success(): Successfully unsubscribed from topic %s",
                    topic.c_str());
        },
        [topic](const MqttFailure& f) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::unsub_failure(): Failed to unsubscribe from topic %s",
                    topic.c_str());
            MFW_LOG(CORE::kLogError,
                    "MqttManager::unsub_failure(): Response:  Error code: %d. MQTT Reason Code: "
                    "%d. Error message: %s. Token: %d",
                    f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
        });
    if (rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::UnsubscribeToTopic(): Failed to unsubscribe to topic %s, return code "
                "%d\n",
                topic.c_str(), rc);
    }
}

void MqttManager::SubscribeToIPCTopic(const std::string& topic) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToIPCTopic(): Subscribing to IPC topic: %s",
            topic.c_str());
    std::shared_lock lock(clientLock_);
    if (!client_) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToIPCTopic(): Failed to subscribe to IPC topic %s. No MQTT "
                "client",
                topic.c_str());
        return;
    }
    const int rc = client_->subscribe(
        topic, 1,
        [topic](int) {
            MFW_LOG(CORE::kLogDebug,
                    "MqttManager::sub_ipc_success(): Successfully subscribed to IPC topic %s",
                    topic.c_str());
        },
        [topic](const MqttFailure& f) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::sub_ipc_failure(): Failed to subscribe to IPC topic %s",
                    topic.c_str());
            MFW_LOG(CORE::kLogError,
                    "MqttManager::sub_ipc_failure(): Response:  Error code: %d. MQTT Reason Code: "
                    "%d. Error message: %s. Token: %d",
                    f.code, f.reasonCode, f.message.empty() ? "null" : f.message.c_str(), f.token);
        });
    if (rc != 0) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToIPCTopic(): Failed to subscribe to IPC topic %s, return "
                "code %d",
                topic.c_str(), rc);
    }
}

}  // namespace ndpx
