// The customisation message's domain join, and the start-up report that
// tells the control plane whether the desktop still needs one.

#include "TemplateMembers.h"
#include "config/mqttConfig.h"
#include "templates/TemplateHandler.h"

#include <mfw/moduleLog.h>

#include <algorithm>
#include <cctype>

namespace ndpx {
namespace {

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string joinFailure(const std::string& domain, const char* account, const std::string& why) {
    return "Unable to join '" + domain + "' domain using " + account + " account, error : " + why;
}

}  // namespace

void TemplateHandler::JoinDomain(const Json::Value& message) {
    std::string ou = templateString(message, "defaultOU");
    const std::string user = templateString(message, "username");
    const std::string password = templateString(message, "password");
    const std::string domain = templateString(message, "domain");
    AbsDomainUtil& machine = *backends_.domain;
    if (machine.IsInDomain()) {
        MFW_LOG(CORE::kLogInfo,
                "TemplateHandler::HandleMsg(): VM has already joined the %s domain, skipping "
                "customization for domain %s",
                machine.DomainName().c_str(), domain.c_str());
        publish("AVAILABLE");
        return;
    }
    if (ou.size() > kMaxOuLength) {
        const std::string text = "Unable to join '" + domain + "' domain: the OU is " +
                                 std::to_string(ou.size()) + " characters long, more than " +
                                 std::to_string(kMaxOuLength);
        MFW_LOG(CORE::kLogError, "TemplateHandler::HandleMsg(): %s", text.c_str());
        publish("DOMAIN_ERR", 1, text);
        return;
    }
    ou = lowerCase(std::move(ou));
    if (ou.find("cn=computers") != std::string::npos) {
        MFW_LOG(CORE::kLogInfo,
                "TemplateHandler::HandleMsg(): CustomizeVM - OU is a default container "
                "(cn=computers)");
        ou.clear();  // the account then goes to the default container
    }

    std::uint32_t error = 0;
    if (doDomainJoin(domain, ou, user, password, error)) {
        MFW_LOG(CORE::kLogInfo, "TemplateHandler::HandleMsg(): Successfully joined '%s' domain",
                domain.c_str());
        return;
    }
    MFW_LOG(CORE::kLogWarning,
            "TemplateHandler::HandleMsg(): Unable to join domain using primary account");
    std::string text;
    if (hasTemplateString(message, "auxiliaryUsername") &&
        hasTemplateString(message, "auxiliaryPassword")) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleMsg(): Trying to join domain using auxiliary account");
        if (doDomainJoin(domain, ou, templateString(message, "auxiliaryUsername"),
                         templateString(message, "auxiliaryPassword"), error)) {
            MFW_LOG(CORE::kLogInfo,
                    "TemplateHandler::HandleMsg(): Successfully joined '%s' domain using "
                    "auxiliary credentials",
                    domain.c_str());
            return;
        }
        text = joinFailure(domain, "auxiliary", machine.ErrorText(error));
    } else {
        text = joinFailure(domain, "primary", machine.ErrorText(error));
    }
    MFW_LOG(CORE::kLogError, "TemplateHandler::HandleMsg(): %s", text.c_str());
    publish("DOMAIN_ERR", 1, text);
}

bool TemplateHandler::doDomainJoin(const std::string& domain, const std::string& ou,
                                   const std::string& user, const std::string& password,
                                   std::uint32_t& error) {
    AbsDomainUtil& machine = *backends_.domain;
    bool rebootNeeded = false;
    if (machine.JoinDomain(domain, ou, user, password, rebootNeeded, error) && rebootNeeded) {
        // No "AVAILABLE" now: the desktop reports after the restart.
        MFW_LOG(CORE::kLogInfo,
                "TemplateHandler::doDomainJoin(): Sending request for system reboot due to "
                "domain join");
        host_.requestSystemReboot();
        return true;
    }
    if (machine.IsInDomain()) {
        MFW_LOG(CORE::kLogWarning, "TemplateHandler::doDomainJoin(): Computer already on domain");
        publish("AVAILABLE");
        return true;
    }
    return false;
}

void TemplateHandler::ReportDomainJoin() {
    auto cfg = config_();
    if (cfg->composerAgentDetected()) {
        HandleDomainJoinForFF();
        return;
    }
    if (cfg->getSkipDomainJoin()) {
        publish("AVAILABLE");
        return;
    }
    if (backends_.domain->IsInDomain()) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleDomainJoin(): No need to ask for domain information. "
                "Already in a domain");
        publish("AVAILABLE");
        return;
    }
    std::string info;
    std::string error;
    // Where the join state cannot be queried (no such facility on this
    // system) the question is not asked on every connect.
    if (azureAd_.available() && azureAd_.IsDeviceAzureADJoined(info, error)) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleDomainJoin(): No need to ask for domain information. "
                "Already in a Azure AD domain");
        publish("AVAILABLE", 2, info);
        return;
    }
    publish("INIT");  // the control plane answers with a customisation message
}

void TemplateHandler::HandleDomainJoinForFF() {
    const int state = config_()->getCustomizationState();
    if (state == 4) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleDomainJoinForFF(): Flashfork customization complete. "
                "This VM has joined the domain");
        publish("AVAILABLE");
    } else if (state == 5) {
        MFW_LOG(CORE::kLogDebug,
                "TemplateHandler::HandleDomainJoinForFF(): Flashfork customization failed");
        publish("CUSTOMIZATION_FAILURE");
    } else {
        MFW_LOG(CORE::kLogError,
                "TemplateHandler::HandleDomainJoinForFF(): Flashfork customization not in an end "
                "state. State: %d",
                state);
        publish("CUSTOMIZATION_INCOMPLETE");
    }
}

}  // namespace ndpx
