// The certificate monitor's check: deadlines, a pending certificate obtained
// through a one-time password, and the swap (proven, recorded, repaired).

#include "certs/CertMonitor.h"
#include "certs/CertificateUtil.h"
#include "certs/OpenSslCertificate.h"
#include "certs/OpenSslUtil.h"
#include "certs/pairingConfig.h"
#include "config/mqttConfig.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <openssl/x509.h>

#include <ctime>

namespace ndpx::certs {
namespace {

// Written before a swap and removed after it: a crash in between leaves it,
// and the next start completes or forgets the swap (RepairInterruptedSwap).
constexpr const char* kSwapIntentValue = "mqtt_CertSwapIntent";

// When `chain`'s certificate stops being valid, as UTC calendar time.
std::optional<std::tm> notAfter(const CertChain* chain) {
    X509* cert = chain != nullptr && chain->endCertificate() != nullptr
                     ? x509Of(*chain->endCertificate())
                     : nullptr;
    std::tm out{};
    if (cert == nullptr || ASN1_TIME_to_tm(X509_get0_notAfter(cert), &out) != 1) {
        return std::nullopt;
    }
    return out;
}

void logFileTime(const char* label, const std::tm& t) {
    MFW_LOG(CORE::kLogDebug, "CertMonitor::logFileTime(): %s: %04d-%02d-%02d,%02d:%02d:%02d\n",
            label, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

std::string rfc3339(const std::tm& t) {
    return CORE::format("%04d-%02d-%02dT%02d:%02d:%02dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                        t.tm_hour, t.tm_min, t.tm_sec);
}

std::string thumbprintOfPem(const std::string& pem) {
    X509Ptr cert = x509FromPem(pem);
    return cert ? thumbprintOf(cert.get()) : std::string();
}

std::string commonNameOfPem(const std::string& pem) {
    X509Ptr cert = x509FromPem(pem);
    return cert ? commonNameOf(cert.get()) : std::string();
}

// A certificate naming the identity the desktop moves to completes the move:
// the pending IDs become the active ones with it.
void completeMoveIfNamed(mqttConfig& cfg, const std::string& certificatePem) {
    const std::optional<std::string> moving = cfg.movingToIdentity();
    if (moving && commonNameOfPem(certificatePem) == *moving) {
        cfg.activatePendingIdentity();
        MFW_LOG(CORE::kLogInfo,
                "CertMonitor::ActivatePendingCertificate(): Agent identity is now %s",
                moving->c_str());
    }
}

}  // namespace

Json::Value CertMonitor::credentialsRequest(const std::string& reason) {
    auto cfg = config_();
    Json::Value request(Json::objectValue);
    request["agentIdentity"] = cfg->getAgentIdentity();
    // The control plane knows the desktop by its current identity; the
    // certificate asked for names the new one.
    if (const auto moving = cfg->movingToIdentity()) {
        request["pendingAgentIdentity"] = *moving;
    }
    request["vmId"] = cfg->getVmId();
    request["reason"] = reason;
    CertChainPtr current;
    if (certificates_->RetrieveClientCertificateContext(false, &current)) {
        if (const auto end = notAfter(current.get())) {
            request["certificateNotAfter"] = rfc3339(*end);
        }
    }
    return request;
}

bool CertMonitor::ClientCertificateRefresh() {
    CertChainPtr chain;
    if (!certificates_->RetrieveClientCertificateContext(false, &chain) ||
        chain->endCertificate() == nullptr) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ClientCertificateRefresh(): Unable to retrieve client certificate.");
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ClientCertificateRefresh(): Checking client certificate expiry.");
    if (const auto end = notAfter(chain.get())) {
        logFileTime("Client certificate valid until", *end);
    }
    auto cfg = config_();
    const auto now = time_.systemNow();
    const auto nextCheck = now + std::chrono::hours(cfg->getCertMonitorIntervalHours());
    const auto soon = now + std::chrono::hours(24) * cfg->getCertExpiryDays();
    bool expiring = false;
    bool beforeNextCheck = false;
    if (certificates_->WillCertChainExpire(chain.get(), nextCheck)) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Client certificate will expire before "
                "next cert check.");
        expiring = beforeNextCheck = true;
    } else if (certificates_->WillCertChainExpire(chain.get(), soon)) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Client certificate is due to expire "
                "soon.");
        expiring = true;
    } else {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Client certificate looks OK.");
    }

    // New IDs take effect with a certificate that names them: one is obtained
    // and swapped in at once.
    const std::optional<std::string> moving = cfg->movingToIdentity();
    const std::string identity = moving.value_or(cfg->getAgentIdentity());
    if (moving) {
        MFW_LOG(CORE::kLogInfo,
                "CertMonitor::ClientCertificateRefresh(): The agent identity moves to %s",
                moving->c_str());
    }
    CertChainPtr pending;
    const bool pendingPresent = certificates_->RetrieveClientCertificateContext(true, &pending) &&
                                pending->endCertificate() != nullptr;
    bool badPending = false;
    if (!pendingPresent) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Pending client certificate not present.");
    } else if (certificates_->GetCertificateCN(pending->endCertificate()) != identity) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Pending Cert CN no longer matches Agent "
                "Identity.");
        badPending = true;
    } else if (certificates_->WillCertChainExpire(pending.get(), soon)) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::ClientCertificateRefresh(): Pending cert will expire soon.");
        badPending = true;
    } else {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Pending client certificate looks OK.");
    }

    bool forced = false;
    bool swapForced = false;
    {
        CORE::MutexLock lock(mutex_);
        forced = std::exchange(forcedRefresh_, false);
    }
    if (forced) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::ClientCertificateRefresh(): Forced pending cert refresh.");
    }
    bool pendingUsable = pendingPresent && !badPending;
    if (forced || badPending || ((expiring || moving) && !pendingPresent)) {
        reason_ = forced       ? "forced"
                  : moving     ? "identity change"
                  : badPending ? "pending certificate unusable"
                               : "expiring";
        pendingUsable = GeneratePendingCertificate();
        if (pendingUsable) {
            MFW_LOG(CORE::kLogDebug,
                    "CertMonitor::ClientCertificateRefresh(): Successfully generated a pending "
                    "cert.");
        } else {
            MFW_LOG(CORE::kLogError,
                    "CertMonitor::ClientCertificateRefresh(): Unable to generate a pending "
                    "certificate.");
        }
    }
    {
        CORE::MutexLock lock(mutex_);
        swapForced = std::exchange(forceSwap_, false);
    }
    if (swapForced) {
        MFW_LOG(CORE::kLogInfo, "CertMonitor::ClientCertificateRefresh(): Forcing cert swap.");
    }
    if (beforeNextCheck || swapForced || (moving && pendingUsable)) {
        CertChainPtr latest;
        if (!certificates_->RetrieveClientCertificateContext(true, &latest) ||
            latest->endCertificate() == nullptr) {
            MFW_LOG(CORE::kLogError,
                    "CertMonitor::ClientCertificateRefresh(): Unable to retrieve client pending "
                    "certificate.");
            return false;
        }
        return ActivatePendingCertificate(swapForced, false);
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ClientCertificateRefresh(): Current certificate is valid, checks "
            "complete.");
    // A move without its certificate is retried sooner.
    return !moving;
}

bool CertMonitor::GeneratePendingCertificate() {
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::GeneratePendingCertificate(): Requesting new pending certificate");
    if (!IssueOTPTokenRequest(credentialsRequest(reason_))) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::GeneratePendingCertificate(): Unable to issue OTP request");
        bool stopping = false;
        {
            CORE::MutexLock lock(mutex_);
            stopping = shutdown_;
        }
        // A wait cut short by a stop (a rollback, the agent shutting down) is
        // no failed renewal: operators would see an error event for nothing.
        if (!stopping) {
            sendEvent(kEventCertificateRefreshFailed, "NO OTP");
            noteRenewal(renewal::kNoOneTimePassword);
        }
        return false;
    }
    bool failed = false;
    {
        CORE::MutexLock lock(mutex_);
        failed = std::exchange(failure_, false);
        success_ = false;
    }
    if (failed) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::GeneratePendingCertificate(): Unable to generate client pending "
                "certificate");
        sendEvent(kEventCertificateRefreshFailed, "NEXHUB ERROR");
        noteRenewal(renewal::kServiceError);
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::GeneratePendingCertificate(): Successfully generated new client pending "
            "certificate");
    sendEvent(kEventRefreshedCertificates);
    noteRenewal(renewal::kObtained);
    return true;
}

// True when an answer came (whether it worked is left in the signals).
bool CertMonitor::IssueOTPTokenRequest(const Json::Value& request) {
    {
        CORE::MutexLock lock(mutex_);
        success_ = failure_ = false;
    }
    if (!host_.publishCredentialsRequest(request)) {
        MFW_LOG(CORE::kLogError, "CertMonitor::IssueOTPTokenRequest(): OTP request failed");
        return false;
    }
    const auto deadline = platform::deadlineAfter(
        time_.steadyNow(), std::chrono::seconds(config_()->getCertRefreshTimeout()));
    Wake wake = waitFor(deadline, false, false);
    if (wake == Wake::Token) {
        processToken();  // signals success or failure itself
        wake = Wake::Refresh;
    }
    switch (wake) {
        case Wake::Shutdown:
            MFW_LOG(CORE::kLogDebug, "CertMonitor::IssueOTPTokenRequest(): Stopping");
            return false;
        case Wake::TimedOut:
            MFW_LOG(CORE::kLogWarning,
                    "CertMonitor::IssueOTPTokenRequest(): Timed out waiting for OTP token message "
                    "response");
            return false;
        case Wake::Refresh:
        case Wake::Token:
            break;
    }
    bool failed = false;
    {
        CORE::MutexLock lock(mutex_);
        failed = failure_;
    }
    if (failed) {
        MFW_LOG(CORE::kLogWarning, "CertMonitor::IssueOTPTokenRequest(): OTP request failed");
    } else {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::IssueOTPTokenRequest(): Received OTP token message response");
    }
    return true;
}

bool CertMonitor::ProcessOTPTokenResponse(const std::string& otp, const std::string& url) {
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ProcessOTPTokenResponse(): Processing OTP token refresh response. "
            "Generating new keys and CSR");
    auto cfg = config_();
    const std::string identity = cfg->certificateIdentity();
    const std::string container = CORE::makeGuid().value_or(std::string(CORE::kNullGuid));
    std::vector<std::uint8_t> keyBlob;
    std::string privateKeyPem;
    std::string csrPem;
    if (!certificates_->GenerateKeyAndCSR(identity, container, keyBlob, privateKeyPem, csrPem)) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): Failed to generate the key and CSR. "
                "Unable to refresh client certificate");
        return false;
    }
    const std::string csr = CORE::base64Encode(csrPem);
    if (csr.empty()) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): Client refresh CSR is empty.");
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ProcessOTPTokenResponse(): Requesting fresh credentials from nexhub.");
    std::string response;
    if (!host_.requestCredentials(url, cfg->getVmId(), otp, csr, response, stopEvent_)) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): Failed to request new credentials from "
                "hub.");
        return false;
    }
    if (response.empty()) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): OTP refresh response is empty.");
        return false;
    }
    pairingConfig pairing(*cfg);
    if (pairing.InitCredentialsFromJSON(response) != CredentialsStatus::Success) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): Refreshed credentials response parse "
                "failed.");
        return false;
    }
    {
        // The pending values are pairing state: not while the chain runs.
        CORE::MutexLock lock(host_.pairingLock());
        if (!pairing.StorePairingData(*certificates_, true, container, keyBlob)) {
            MFW_LOG(CORE::kLogError,
                    "CertMonitor::ProcessOTPTokenResponse(): Unable to store pending pairing "
                    "data.");
            return false;
        }
    }
    if (!pairing.RetrievePairingData(*certificates_, identity, true)) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ProcessOTPTokenResponse(): Unable to read pairing data");
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ProcessOTPTokenResponse(): Successfully refreshed client pending "
            "credentials");
    return true;
}

bool CertMonitor::ActivatePendingCertificate(bool swapForced, bool pairingLockHeld) {
    // Proven before it is committed to: a certificate the broker refuses
    // would strand the desktop, the current one keeps working meanwhile.
    ClientCredentials pending;
    if (!certificates_->RetrieveCertificates(true, config_()->certificateIdentity(), pending)) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ActivatePendingCertificate(): No pending certificate of the agent "
                "identity; keeping the current one");
        sendEvent(kEventSwapFailed, "NO PENDING CERTIFICATE");
        noteRenewal(renewal::kNoPending);
        return false;
    }
    if (!host_.brokerAccepts(pending.clientCertPem, pending.privateKeyPem, stopEvent_)) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ActivatePendingCertificate(): The broker does not accept the "
                "pending certificate; keeping the current one");
        sendEvent(kEventSwapFailed, "PENDING CERTIFICATE REFUSED BY BROKER");
        noteRenewal(renewal::kRefused);
        return false;
    }
    bool swapped = false;
    if (pairingLockHeld) {
        swapped = swapLocked();
    } else {
        CORE::MutexLock lock(host_.pairingLock());
        swapped = swapLocked();
    }
    if (!swapped) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ActivatePendingCertificate(): Failed to activate pending "
                "certificate");
        sendEvent(kEventSwapFailed, "RENAME FAILED");
        noteRenewal(renewal::kSwapFailed);
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::ActivatePendingCertificate(): Successfully swapped the current and "
            "pending certificates.");
    sendEvent(kEventSwappedCertificates);
    noteRenewal(swapForced ? renewal::kSwappedOnDemand : renewal::kSwapped);
    host_.certificateSwapped();
    return true;
}

// The certificate store swaps in one transaction, the pairing values live in
// the settings store: the intent recorded first ties the two together.
bool CertMonitor::swapLocked() {
    auto cfg = config_();
    ClientCredentials pending;
    if (!certificates_->RetrieveCertificates(true, "", pending)) {
        return false;
    }
    // Under the pairing lock the identities hold still: a move begun since
    // the pending certificate was checked leaves it naming neither.
    const std::string cn = commonNameOfPem(pending.clientCertPem);
    if (cn != cfg->getAgentIdentity() && cn != cfg->movingToIdentity()) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::ActivatePendingCertificate(): The pending certificate names %s, "
                "which is no longer the identity asked for",
                cn.c_str());
        return false;
    }
    auto& store = cfg->store();
    // Unrecorded, a swap cut short would leave the new certificate with the
    // old pairing values for good: no record, no swap.
    if (!store.set(kNodeManagerKey, kSwapIntentValue,
                   platform::SettingValue::ofString(thumbprintOfPem(pending.clientCertPem)))) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::ActivatePendingCertificate(): Unable to record the swap in the "
                "settings store: %s",
                store.lastWriteError().c_str());
        return false;
    }
    if (!certificates_->ActivatePendingCertificate()) {
        store.remove(kNodeManagerKey, kSwapIntentValue);
        return false;
    }
    // The certificate is in use from here on. Pairing values that could not
    // be written keep the record, so the next start completes them.
    if (pairingConfig(*cfg).activatePendingConfig()) {
        completeMoveIfNamed(*cfg, pending.clientCertPem);
        store.remove(kNodeManagerKey, kSwapIntentValue);
    }
    return true;
}

void CertMonitor::RepairInterruptedSwap() {
    auto cfg = config_();
    auto& store = cfg->store();
    const auto intent = store.get(kNodeManagerKey, kSwapIntentValue);
    if (!intent) {
        return;
    }
    ClientCredentials current;
    const bool swapped = certificates_->RetrieveCertificates(false, "", current) &&
                         thumbprintOfPem(current.clientCertPem) == intent->text;
    if (swapped) {
        // The certificate became current: its pairing values follow.
        pairingConfig(*cfg).activatePendingConfig();
        completeMoveIfNamed(*cfg, current.clientCertPem);
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::RepairInterruptedSwap(): Completed a certificate swap that was "
                "interrupted");
    } else {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::RepairInterruptedSwap(): A certificate swap was interrupted before "
                "it began; the current certificate stays");
    }
    store.remove(kNodeManagerKey, kSwapIntentValue);
}

}  // namespace ndpx::certs
