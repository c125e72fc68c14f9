// The steps of the registration chain and the helpers they share.

#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "config/MqttManagerUtil.h"
#include "mqtt/MqttManager.h"
#include "net/UrlText.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

CORE::PropertyBag queueRequest(const wchar_t* queue) {
    CORE::PropertyBag request;
    request.set(L"QUEUE", queue);
    return request;
}

}  // namespace

bool Registration::ParseLCMSpec() {
    if (!parseLcmSpec_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::ParseLCMSpec(): Skipping parsing LCM Spec file.");
        return true;
    }
    parseLcmSpec_ = false;
    auto cfg = manager_.config();
    if (!cfg->ReadLCMSpecFromFile()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::ParseLCMSpec(): Unable to read LCM spec despite it existing!");
        return false;
    }
    if (!cfg->isPendingLCMSpecComplete()) {
        MFW_LOG(CORE::kLogError, "MqttManager::ParseLCMSpec(): LCM spec data is incomplete!");
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::ParseLCMSpec(): LCM Spec data complete, will bootstrap.");
    sameIdentity_ = cfg->getAgentIdentityPend() == cfg->getAgentIdentity();
    return true;
}

bool Registration::RegisterMessageTransport(bool commit) {
    auto cfg = manager_.config();
    const std::wstring transport = cfg->getMsTransport();
    if (transportRegistered_ && CORE::iequals(transport, L"MQTT")) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::RegisterMessageTransport(): Skipping Message Transport registration. "
                "Already registered.");
        return true;
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegisterMessageTransport(): Registering MQTT with %s queue",
            "DesktopManager");
    // While a migration runs the old transport stays in charge; MQTT only
    // joins the notify queue. Were "MS Transport" set here, the commit would
    // find the agent already on MQTT and refuse; so only it hands over.
    const bool migrating = !commit && cfg->isMigrationActive();
    const bool replaceJms = !migrating && !transport.empty() && !CORE::iequals(transport, L"MQTT");
    if (replaceJms) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::RegisterMessageTransport(): Replacing JMS message transport with "
                "MQTT");
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::RegisterMessageTransport(): Adding MQTT to notify queue");
    bool ok = manager_.sendToDesktopManager(L"NotifyQueueAdd", queueRequest(L"MQTT")) == 0;
    if (!migrating) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::RegisterMessageTransport(): Registering MQTT as message transport");
        ok = manager_.sendToDesktopManager(L"NotifyQueueRegisterMessageTransport",
                                           queueRequest(L"MQTT")) == 0 &&
             ok;
    }
    if (replaceJms) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::RegisterMessageTransport(): Removing JMS from notify queue");
        manager_.sendToDesktopManager(L"NotifyQueueRemove", queueRequest(L"JMSBridge"));
    }
    if (ok && !migrating) {
        cfg->store().set(kNodeManagerKey, "MS Transport", platform::SettingValue::ofString("MQTT"));
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::RegisterMessageTransport(): %s registered with %s queue",
            ok ? "Successfully" : "Unsuccessfully", "DesktopManager");
    transportRegistered_ = ok;
    return ok;
}

bool Registration::ReadAndValidatePairingData() {
    if (needBootstrap_) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::ReadAndValidatePairingData(): Need to bootstrap so don't need to "
                "read and validate pairing data");
        return true;
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::ReadAndValidatePairingData(): Reading pairing data from store.");
    auto cfg = manager_.config();
    pairingConfig pairing(*cfg);
    if (!pairing.RetrievePairingData(*certificates_, cfg->getAgentIdentity())) {
        if (HandleActiveRetries()) {
            MFW_LOG(
                CORE::kLogDebug,
                "MqttManager::ReadAndValidatePairingData(): Missing some pairing configuration, "
                "will retry.");
        }
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::ReadAndValidatePairingData(): Checking certificate validity.");
    if (manager_.clientCertificateUsable(true)) {
        manager_.pairedFlag_ = true;
        return true;
    }
    if (HandleActiveRetries()) {
        MFW_LOG(CORE::kLogDebug,
                "MqttManager::ReadAndValidatePairingData(): All certificates are invalid or have "
                "not been found, will retry.");
    }
    return false;
}

bool Registration::HandleActiveRetries() {
    if (++activeRetries_ <= maxCachedRetries_) {
        return true;
    }
    MFW_LOG(CORE::kLogWarning,
            "MqttManager::HandleActiveRetries(): Failed to retrieve and validate cached pairing "
            "data after %d retries, will bootstrap.",
            static_cast<int>(maxCachedRetries_));
    failed("Cached pairing data not found or invalid. Bootstrap needed");
    RevertToRequireBootstrap(true);
    return false;
}

bool Registration::HandlePendingRetries() {
    if (++pendingRetries_ <= maxCachedRetries_) {
        MFW_LOG(
            CORE::kLogDebug,
            "MqttManager::HandlePendingRetries(): Failed to activate pending LCM spec. Will try "
            "again.");
        return true;
    }
    MFW_LOG(CORE::kLogWarning,
            "MqttManager::HandlePendingRetries(): Failed to activate pending LCM spec after %d "
            "retries will clear config.",
            static_cast<int>(maxCachedRetries_));
    auto cfg = manager_.config();
    cfg->setVmIdPend("");
    cfg->setShortTemplateIdPend("");
    cfg->setEdgeIdPend("");
    cfg->setAgentIdentityPend("");
    cfg->CleanLCMPairingConfiguration();
    return false;
}

void Registration::pairingFailed(const char* reason) {
    manager_.counters_.pairingFailures.add(reason);
}

bool Registration::CreateAgentKeyPair() {
    if (!needBootstrap_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::CreateAgentKeyPair(): Skip creating agent key pair");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::CreateAgentKeyPair(): Creating agent key pair.");
    manager_.setRunState(MQTT_STATE_PAIRING);
    manager_.counters_.pairingAttempts.fetch_add(1);
    auto cfg = manager_.config();
    const auto guid = CORE::makeGuid();
    keyContainer_ = guid ? *guid : std::string(CORE::kNullGuid);
    keyBlob_.clear();
    std::string privateKeyPem;
    std::string csrPem;
    if (!certificates_->GenerateKeyAndCSR(cfg->getAgentIdentityPend(), keyContainer_, keyBlob_,
                                          privateKeyPem, csrPem)) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::CreateAgentKeyPair(): Failed to generate the key and CSR.");
        pairingFailed(pairing_failure::kKeyGeneration);
        HandlePendingRetries();
        return false;
    }
    const std::string encoded = CORE::base64Encode(csrPem);
    if (encoded.empty()) {
        MFW_LOG(CORE::kLogError, "MqttManager::CreateAgentKeyPair():  Client CSR is empty.");
        pairingFailed(pairing_failure::kKeyGeneration);
        return false;
    }
    cfg->setPairingSecrets({std::move(privateKeyPem), CORE::toWide(keyContainer_), encoded});
    return true;
}

bool Registration::MakeOTPRequest(const std::string& url, const std::string& vmId,
                                  const std::string& otp, const std::string& csrBase64,
                                  std::string& response, CORE::coreevent& abort) {
    auto cfg = manager_.config();
    OtpRequest request;
    request.url = url;
    request.thumbprint = cfg->getSslCertThumbprint();
    request.checkRevocation = cfg->getCertRevocation();
    request.proxyServer = CORE::toUtf8(cfg->getHttpProxyServer());
    request.proxyBypass = CORE::toUtf8(cfg->getHttpProxyBypass());
    request.proxyAutoConfigUrl = CORE::toUtf8(cfg->getHttpProxyAutoConfigUrl());
    request.timeoutSeconds = static_cast<std::uint32_t>(cfg->getHubRequestTimeout());
    Json::Value body(Json::objectValue);
    body["vmId"] = vmId;
    body["otp"] = otp;
    body["clientCsr"] = csrBase64;
    request.body = MqttManagerUtil::writeCompact(body);
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::MakeOTPRequest(): Using vmId: %s. URL: %s. clientCsr: \r\n%s",
            vmId.c_str(), request.url.c_str(), csrBase64.c_str());
    MFW_LOG(CORE::kLogDebug,
            "MqttManager::MakeOTPRequest(): OTP Request outgoing. Proxy Server: %s. Proxy Bypass: "
            "%s. PACURL: %s.",
            net::redactUrl(request.proxyServer).c_str(), request.proxyBypass.c_str(),
            net::redactUrl(request.proxyAutoConfigUrl).c_str());
    // `abort` cancels the request: the service may hold it for minutes.
    return credentials_ && credentials_->request(request, response, abort);
}

bool Registration::RequestCredentials() {
    if (!needBootstrap_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::RequestCredentials(): Skipping credentials request");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::RequestCredentials(): Requesting credentials from hub.");
    auto cfg = manager_.config();
    std::string response;
    if (!MakeOTPRequest(cfg->getOtpUrl(), cfg->getVmIdPend(), cfg->getOtp(),
                        cfg->pairingSecrets().csr, response, manager_.shutdownEvent())) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::RequestCredentials(): Failed to register with REST API.");
        pairingFailed(pairing_failure::kCredentialService);
        HandlePendingRetries();
        return false;
    }
    // The one-time password has been used, whatever the answer says.
    cfg->CleanLCMPairingConfiguration();
    if (response.empty()) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::RequestCredentials(): OTP activation response is empty.");
    } else {
        auto pairing = std::make_unique<pairingConfig>(*cfg);
        if (pairing->InitCredentialsFromJSON(response) == CredentialsStatus::Success) {
            pairingConfigOwner_ = cfg;
            pendingPairing_ = std::move(pairing);
            MFW_LOG(CORE::kLogDebug,
                    "MqttManager::RequestCredentials(): Successfully requested credentials");
            return true;
        }
        MFW_LOG(CORE::kLogError,
                "MqttManager::RequestCredentials(): Credentials response parse failed.");
    }
    pairingFailed(pairing_failure::kCredentialsResponse);
    failed("Failed to request credentials. Bootstrap needed");
    return false;
}

bool Registration::StorePairingData() {
    if (!needBootstrap_) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::StorePairingData(): Skip storing pairing data");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::StorePairingData(): Storing pairing data.");
    auto cfg = manager_.config();
    std::unique_ptr<pairingConfig> pairing = std::move(pendingPairing_);
    pairingConfigOwner_.reset();
    if (!pairing || !pairing->StorePairingData(*certificates_, false, keyContainer_, keyBlob_)) {
        MFW_LOG(CORE::kLogError, "MqttManager::StorePairingData(): Unable to store pairing data.");
        pairingFailed(pairing_failure::kStore);
        failed("Failed to store certficates. Bootstrap needed");
        if (registrationCompleted_) {
            // The running session keeps the pairing it has.
            pairingConfig previous(*cfg);
            const bool kept = previous.RetrievePairingData(*certificates_, cfg->getAgentIdentity());
            MFW_LOG(kept ? CORE::kLogDebug : CORE::kLogWarning,
                    "MqttManager::StorePairingData(): Previous pairing data %s",
                    kept ? "read back" : "could not be read back");
            manager_.pairedFlag_ = kept;
        }
        return false;
    }
    if (!pairing->RetrievePairingData(*certificates_, cfg->getAgentIdentityPend())) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::StorePairingData(): Have paired but pairing data not complete");
        pairingFailed(pairing_failure::kStore);
        failed("Pairing data incomplete. Bootstrap needed");
        return false;
    }
    cfg->CleanAgentBootstrapConfiguration();
    return true;
}

bool Registration::MarkPairedState() {
    manager_.pairedStateKnown_ = true;
    if (needBootstrap_) {
        manager_.config()->setPaired(true);
        UpdateIDs();
    }
    manager_.pairedFlag_ = true;
    return true;
}

void Registration::UpdateIDs() {
    auto cfg = manager_.config();
    cfg->activatePendingIdentity();
    MFW_LOG(CORE::kLogInfo, "MqttManager::UpdateIDs(): Agent identity is now %s",
            cfg->getAgentIdentity().c_str());
}

void Registration::revertToRequireBootstrap(bool forgetPairingData, const std::string& reason) {
    CORE::MutexLock lock(mutex_);
    if (!reason.empty()) {
        failureReason_ = reason;
    }
    RevertToRequireBootstrap(forgetPairingData);
}

void Registration::RevertToRequireBootstrap(bool forgetPairingData) {
    MFW_LOG(CORE::kLogWarning,
            "MqttManager::RevertToRequireBootstrap(): A new LCM spec is required: %s",
            failureReason_.c_str());
    manager_.sendToDesktopManager(L"NotifyQueueRemove", queueRequest(L"MQTT"));
    transportRegistered_ = false;
    auto cfg = manager_.config();
    // Without an active identity only a new spec (or pending values) can
    // start the chain again.
    cfg->setVmId("");
    cfg->setAgentIdentity("");
    cfg->setPaired(false);
    manager_.pairedFlag_ = false;
    registrationCompleted_ = false;
    activeRetries_ = 0;
    if (forgetPairingData) {
        cfg->store().remove(kNodeManagerKey, kEndpointUrlValue);
        cfg->store().remove(kNodeManagerKey, kBootstrapTopicValue);
        certificates_->RemoveClientCertificate(false);
    }
}

}  // namespace ndpx
