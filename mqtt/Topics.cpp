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
    CORE::MutexLock lock(topicsLock_);
    return subscribeTopics_;
}

PublishTopics MqttManager::publishTopics() const {
    CORE::MutexLock lock(topicsLock_);
    return publishTopics_;
}

std::pair<SubscribeTopics, PublishTopics> MqttManager::topicsFromConfig() {
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
    return {sub, pub};
}

bool MqttManager::ConfigureTopicNames() {
    MFW_LOG(CORE::kLogDebug, "MqttManager::ConfigureTopicNames(): Configuring topic names.");
    const auto [sub, pub] = topicsFromConfig();
    {
        CORE::MutexLock lock(topicsLock_);
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

namespace {

// The subscriptions in the order they are requested, with the names their
// log lines give them.
struct Subscription {
    int index;
    const std::string SubscribeTopics::*topic;
    const char* subscribing;
    const char* failed;
};
constexpr Subscription kSubscriptions[] = {
    {kSubBootstrap, &SubscribeTopics::bootstrap, "bootstrap", "bootstrap"},
    {kSubCommands, &SubscribeTopics::commands, "command", "commands"},
    {kSubDTemplate, &SubscribeTopics::dtemplate, "DTemplate", "dtemplate"},
    {kSubConfiguration, &SubscribeTopics::configuration, "configuration", "config"},
    {kSubOtpToken, &SubscribeTopics::otpToken, "OTP", "OTP"},
};

// Log names of the subscription indexes, for the failure callback. The
// token topic is reported as unknown, as it always was.
const char* subscriptionName(int index) {
    switch (index) {
        case kSubBootstrap:
            return "bootstrap topic";
        case kSubCommands:
            return "command topic";
        case kSubConfiguration:
            return "config topic";
        case kSubDTemplate:
            return "template topic";
        default:
            return "unknown topic";
    }
}

const std::string* topicOf(const SubscribeTopics& topics, int index) {
    for (const auto& s : kSubscriptions) {
        if (s.index == index) {
            return &(topics.*s.topic);
        }
    }
    return nullptr;
}

std::string failureText(const MqttFailure& f) {
    return f.message.empty() ? "null" : f.message;
}

}  // namespace

void MqttManager::SubscribeToTopics() {
    if (!connection_.hasClient()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::SubscribeToTopics(): Unable to subscribe to topics, MQTT client "
                "doesn't exist.");
        return;
    }
    const SubscribeTopics topics = subscribeTopics();
    // A failed request does not stop the ones after it.
    for (const auto& s : kSubscriptions) {
        const std::string& topic = topics.*s.topic;
        MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToTopics(): Subscribing to %s topic: %s",
                s.subscribing, topic.c_str());
        const int index = s.index;
        const int rc = connection_.subscribe(
            topic, 1, [this, index](int) { OnSubscribeSuccess(index); },
            [this, index](const MqttFailure& f) { OnSubscribeFailure(index, f); });
        if (rc != kMqttSuccess) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::SubscribeToTopics(): Failed to subscribe to %s topic, return "
                    "code %d",
                    s.failed, rc);
        }
    }
}

void MqttManager::OnSubscribeSuccess(int index) {
    subscribedMask_.fetch_or(1u << index);
    const SubscribeTopics topics = subscribeTopics();
    if (const std::string* topic = topicOf(topics, index)) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::OnSubscribeSuccess(): Successfully subscribed to topic: %s",
                topic->c_str());
    } else {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::OnSubscribeSuccess(): Subscribed to unknown topic");
    }
    if (index == kSubBootstrap) {
        reports_->Start();
    }
    if (index == kSubOtpToken) {
        certMonitor_->Start();
    }
    if (index == kSubDTemplate && needIdFlag_) {
        Json::Value status;
        BuildStatusMessage(status, "NEED_ID", 0, {});
        PublishMessage(publishTopics().desktopStatus, status, true);
        templates_->HandleDomainJoin();
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
    MFW_LOG(CORE::kLogError,
            "MqttManager::OnSubscribeFailure(): Failed to subscribe to %s Error code: %d. MQTT "
            "Reason Code: %d. Error message: %s. Token: %d",
            subscriptionName(index), f.code, f.reasonCode, failureText(f).c_str(), f.token);
}

void MqttManager::UnsubscribeToTopic(const std::string& topic) {
    if (topic.empty()) {
        return;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::UnsubscribeToTopic(): Unsubscribing from topic: %s",
            topic.c_str());
    const int rc = connection_.unsubscribe(
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
                    f.code, f.reasonCode, failureText(f).c_str(), f.token);
        });
    if (rc == MqttConnection::kNoClient) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::UnsubscribeToTopic(): Failed to unsubscribe to topic %s. No MQTT "
                "client",
                topic.c_str());
    } else if (rc != kMqttSuccess) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::UnsubscribeToTopic(): Failed to unsubscribe to topic %s, return code "
                "%d\n",
                topic.c_str(), rc);
    }
}

void MqttManager::SubscribeToIPCTopic(const std::string& topic) {
    MFW_LOG(CORE::kLogDebug, "MqttManager::SubscribeToIPCTopic(): Subscribing to IPC topic: %s",
            topic.c_str());
    const int rc = connection_.subscribe(
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
                    f.code, f.reasonCode, failureText(f).c_str(), f.token);
        });
    if (rc == MqttConnection::kNoClient) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToIPCTopic(): Failed to subscribe to IPC topic %s. No MQTT "
                "client",
                topic.c_str());
    } else if (rc != kMqttSuccess) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::SubscribeToIPCTopic(): Failed to subscribe to IPC topic %s, return "
                "code %d",
                topic.c_str(), rc);
    }
}

}  // namespace ndpx
