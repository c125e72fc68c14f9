#include "templates/TemplateHandler.h"

#include "TemplateMembers.h"
#include "config/mqttConfig.h"
#include "domain/DomainUtil.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

std::unique_ptr<AadJoinQuery> makeQuery(
    const std::function<std::unique_ptr<AadJoinQuery>()>& make) {
    return make ? make() : makeAadJoinQuery();
}

}  // namespace

TemplateHandler::TemplateHandler(TemplateHost& host, ConfigSource config, TemplateBackends backends,
                                 platform::TimeSource& time)
    : host_(host),
      config_(std::move(config)),
      stop_(CORE::coreevent::Reset::Manual, false, time),
      backends_(std::move(backends)),
      restart_([this](const std::string& status, int kind,
                      const std::string& detail) { publish(status, kind, detail); },
               time),
      azureAd_(
          makeQuery(backends_.azureAd), config_,
          [this](const std::string& status, int kind, const std::string& detail) {
              publish(status, kind, detail);
          },
          time) {
    if (!backends_.domain) {
        backends_.domain = std::make_shared<DomainUtil>(&stop_);
    }
    if (!backends_.timeZone) {
        backends_.timeZone = makeSystemTimeZone();
    }
}

TemplateHandler::~TemplateHandler() {
    Stop();
}

void TemplateHandler::Start() {
    stop_.reset();
    worker_.start();
    running_ = true;
}

void TemplateHandler::Stop() {
    // The manager stops it, then its destructor and the handler's own do.
    if (!running_.exchange(false)) {
        return;
    }
    stop_.set();
    restart_.Stop();
    azureAd_.Stop();
    // What is still queued runs against the set stop event: a join ends at
    // once.
    worker_.stop();
}

void TemplateHandler::HandleMsg(const Json::Value& message) {
    if (!worker_.post([this, message] { ProcessMsg(message); })) {
        MFW_LOG(CORE::kLogWarning,
                "TemplateHandler::HandleMsg(): The handler has stopped; message dropped");
    }
}

void TemplateHandler::HandleDomainJoin() {
    if (!worker_.post([this] { ReportDomainJoin(); })) {
        MFW_LOG(CORE::kLogWarning,
                "TemplateHandler::HandleDomainJoin(): The handler has stopped; no report");
    }
}

void TemplateHandler::publish(const std::string& status, int detailKind,
                              const std::string& detail) {
    host_.publishTemplateStatus(status, detailKind, detail);
}

void TemplateHandler::ProcessMsg(const Json::Value& message) {
    if (!message.isObject()) {
        MFW_LOG(CORE::kLogError,
                "TemplateHandler::HandleMsg(): Template message is not a JSON object; ignored");
        return;
    }
    const std::string type = templateString(message, "msgType");
    if (CORE::iequals(type, "SET_ID")) {
        UpdateIDs(message);
        return;
    }
    if (CORE::iequals(type, "SET_TIMEZONE")) {
        UpdateTimeZone(message);
        return;
    }
    Customize(message);
}

void TemplateHandler::Customize(const Json::Value& message) {
    auto cfg = config_();
    if (cfg->composerAgentDetected()) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleMsg(): Flashfork Agent will handle customization. Manual "
                "domain join not supported.");
        return;
    }
    if (cfg->getSkipDomainJoin()) {
        MFW_LOG(CORE::kLogWarning,
                "TemplateHandler::HandleMsg(): Agent set to skip customization. Ignoring message");
        return;
    }
    if (!templateBool(message, "vmReady", true)) {
        const std::int64_t interval = templateInt(message, "pollInterval", 30);
        restart_.SetPollInterval(interval < 0 ? 0 : static_cast<std::uint64_t>(interval));
        restart_.Start();
        return;
    }
    restart_.Stop();
    const bool azureAdJoin = templateBool(message, "azureActiveDirectoryJoined", false);
    MFW_LOG(CORE::kLogDebug, "TemplateHandler::HandleMsg(): IsAzureADJoin = %d",
            azureAdJoin ? 1 : 0);
    if (azureAdJoin) {
        JoinAzureAd();
    } else {
        JoinDomain(message);
    }
}

void TemplateHandler::JoinAzureAd() {
    if (!azureAd_.available()) {
        const std::string text = "Unable to query Azure AD status";
        MFW_LOG(CORE::kLogError, "TemplateHandler::HandleMsg(): %s", text.c_str());
        publish("DOMAIN_ERR", 1, text);
        return;
    }
    std::string info;
    std::string error;
    if (azureAd_.IsDeviceAzureADJoined(info, error)) {
        publish("AVAILABLE", 2, info);
    } else {
        azureAd_.Start();
    }
}

}  // namespace ndpx
