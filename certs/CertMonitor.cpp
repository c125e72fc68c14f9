// The certificate monitor's thread, its signals and triggers, the token
// answers, and the validity checks the registration chain and healing use.

#include "certs/CertMonitor.h"

#include "certs/CertificateUtil.h"
#include "certs/OpenSslCertificate.h"
#include "config/mqttConfig.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <openssl/x509.h>

#include <ctime>

namespace ndpx::certs {
namespace {

constexpr const char* kValidityPrefix =
    "CertMonitor::CheckCertificateValidity::<lambda_1>::operator ()(): ";

}  // namespace

CertMonitor::CertMonitor(CertMonitorHost& host, ConfigSource config,
                         std::shared_ptr<CertificateUtil> certificates, platform::TimeSource& time)
    : host_(host),
      config_(std::move(config)),
      certificates_(std::move(certificates)),
      time_(time),
      stopEvent_(CORE::coreevent::Reset::Manual, false, time),
      generator_(std::random_device{}()) {
    // Every result from the start, so a scraper sees a zero, not nothing.
    for (const char* result : renewal::kResults) {
        renewalResults_[result] = 0;
    }
}

CertMonitor::~CertMonitor() {
    Stop();
}

bool CertMonitor::Start() {
    CORE::MutexLock lock(mutex_);
    if (thread_) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::Start(): Certificate monitor thread already started");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "CertMonitor::Start(): Starting certificate monitor");
    shutdown_ = refresh_ = success_ = failure_ = false;
    threadWaiting_ = false;
    stopEvent_.reset();
    token_.reset();
    auto thread = std::make_unique<CORE::corethread>();
    if (!thread->start("CertMonitor", [this] { CertificateMonitorThreadProc(); })) {
        return false;
    }
    thread_ = std::move(thread);
    return true;
}

bool CertMonitor::Stop() {
    std::unique_ptr<CORE::corethread> thread;
    {
        CORE::MutexLock lock(mutex_);
        if (!thread_) {
            MFW_LOG(CORE::kLogDebug,
                    "CertMonitor::Stop(): Certificate monitor thread not running.");
            return false;
        }
        shutdown_ = true;
        thread = std::move(thread_);
    }
    signalled_.notify_all();
    stopEvent_.set();
    thread->join();
    MFW_LOG(CORE::kLogDebug, "CertMonitor::Stop(): Stopped certificate monitor thread");
    return true;
}

CertMonitor::Wake CertMonitor::waitFor(platform::TimeSource::SteadyTime deadline, bool refreshEnds,
                                       bool asWaiting) {
    CORE::MutexLock lock(mutex_);
    threadWaiting_ = asWaiting;
    time_.waitUntil(lock.native(), signalled_, deadline, [&] {
        mutex_.assertHeld();
        return shutdown_ || token_.has_value() || (refreshEnds && refresh_) ||
               (!refreshEnds && (success_ || failure_));
    });
    threadWaiting_ = false;
    if (shutdown_) {
        return Wake::Shutdown;
    }
    if (token_) {
        return Wake::Token;
    }
    if (refreshEnds && std::exchange(refresh_, false)) {
        return Wake::Refresh;
    }
    if (!refreshEnds && (success_ || failure_)) {
        return Wake::Refresh;  // an answer came; the caller reads which
    }
    return Wake::TimedOut;
}

void CertMonitor::CertificateMonitorThreadProc() {
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::CertificateMonitorThreadProc(): Starting certificate monitor thread");
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (;;) {
        const bool ok = ClientCertificateRefresh();
        if (!ok) {
            MFW_LOG(CORE::kLogWarning,
                    "CertMonitor::CertificateMonitorThreadProc(): Failed to do certificate check, "
                    "will retry");
        }
        const double hours = config_()->getCertMonitorIntervalHours();
        auto seconds = static_cast<unsigned long>((0.9 + 0.1 * unit(generator_)) * hours * 3600);
        if (!ok) {
            seconds /= 10;
        }
        MFW_LOG(
            CORE::kLogVerbose,
            "CertMonitor::CertificateMonitorThreadProc(): Will check certificate in %lu seconds",
            seconds);
        const auto deadline = platform::deadlineAfter(
            time_.steadyNow(), std::chrono::milliseconds(std::chrono::seconds(seconds)));
        Wake wake = waitFor(deadline, true, true);
        // An answer that came without a request is processed here, off the
        // session's thread; the wait then goes on to its end.
        while (wake == Wake::Token) {
            processToken();
            wake = waitFor(deadline, true, true);
        }
        if (wake == Wake::Shutdown) {
            MFW_LOG(CORE::kLogVerbose,
                    "CertMonitor::CertificateMonitorThreadProc(): Shutting down");
            return;
        }
        if (wake == Wake::Refresh) {
            MFW_LOG(CORE::kLogDebug,
                    "CertMonitor::CertificateMonitorThreadProc(): Certificate refresh triggered");
        } else {
            MFW_LOG(CORE::kLogVerbose,
                    "CertMonitor::CertificateMonitorThreadProc(): Checking certificates");
        }
    }
}

bool CertMonitor::triggerIfWaiting(const char* notRunning, bool forced, bool swap) {
    {
        CORE::MutexLock lock(mutex_);
        if (!threadWaiting_) {
            lock.unlock();
            MFW_LOG(CORE::kLogDebug, "%s", notRunning);
            return false;
        }
        forcedRefresh_ = forcedRefresh_ || forced;
        forceSwap_ = forceSwap_ || swap;
        refresh_ = true;
    }
    signalled_.notify_all();
    return true;
}

void CertMonitor::TriggerRefresh(bool forced) {
    if (triggerIfWaiting("CertMonitor::TriggerRefresh(): Certificate monitor thread not running.",
                         forced, false)) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::TriggerRefresh(): Triggering cert refresh. Forced = %s",
                forced ? "true" : "false");
    }
}

void CertMonitor::TriggerRefreshAndSwap() {
    if (triggerIfWaiting(
            "CertMonitor::TriggerRefreshAndSwap(): Certificate monitor thread not running.", true,
            true)) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::TriggerRefreshAndSwap(): Triggering refresh, swap, and reconnect");
    }
}

void CertMonitor::IdentityMoved() {
    {
        CORE::MutexLock lock(mutex_);
        if (!thread_) {
            lock.unlock();
            MFW_LOG(CORE::kLogDebug,
                    "CertMonitor::IdentityMoved(): Certificate monitor thread not running; its "
                    "first check takes up the move");
            return;
        }
        // Kept until the thread next waits, should it be busy now.
        refresh_ = true;
        // The answer to the request this causes is no repeat of an earlier
        // token, however soon it comes.
        lastOtpTicks_.reset();
    }
    MFW_LOG(CORE::kLogDebug, "CertMonitor::IdentityMoved(): Checking for the new identity");
    signalled_.notify_all();
}

void CertMonitor::RefreshSucceeded() {
    signalOutcome(true, "CertMonitor::RefreshSucceeded(): Certificate monitor thread not running.");
}

void CertMonitor::RefreshFailed() {
    signalOutcome(false, "CertMonitor::RefreshFailed(): Certificate monitor thread not running.");
}

void CertMonitor::signalOutcome(bool succeeded, const char* notRunning) {
    {
        CORE::MutexLock lock(mutex_);
        if (!thread_) {
            MFW_LOG(CORE::kLogDebug, "%s", notRunning);
            return;
        }
        (succeeded ? success_ : failure_) = true;
    }
    signalled_.notify_all();
}

void CertMonitor::HandleOTPTokenResponseMessage(const Json::Value& json) {
    // Read before the lock: the configuration takes locks of its own, and its
    // change notifications call into this monitor.
    const auto repeatMs = static_cast<std::uint64_t>(config_()->getCertOtpRepeatInterval()) * 1000u;
    {
        CORE::MutexLock lock(mutex_);
        const std::uint64_t now = time_.bootMilliseconds();
        if (lastOtpTicks_ && now - *lastOtpTicks_ < repeatMs) {
            MFW_LOG(CORE::kLogDebug,
                    "CertMonitor::HandleOTPTokenResponseMessage(): Recently processed OTP token, "
                    "ignoring");
            return;
        }
        lastOtpTicks_ = now;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::HandleOTPTokenResponseMessage(): Received OTP token message");
    const auto text = [&](const char* name) {
        const Json::Value& v = json.isObject() ? json[name] : Json::Value::nullSingleton();
        return v.isString() ? v.asString() : std::string();
    };
    const std::string otp = text("otp");
    const std::string url = text("nexHubUrl");
    if (otp.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::HandleOTPTokenResponseMessage(): OTP field is empty.");
    }
    if (url.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::HandleOTPTokenResponseMessage(): OTP NexHub URL field is empty.");
    }
    const Json::Value& swap =
        json.isObject() ? json["forceCertSwap"] : Json::Value::nullSingleton();
    if (!swap.isBool()) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::HandleOTPTokenResponseMessage(): forceCertSwap not present.");
    }
    if (otp.empty() || url.empty()) {
        RefreshFailed();
        return;
    }
    {
        CORE::MutexLock lock(mutex_);
        if (swap.isBool()) {
            // The control plane can ask for a swap but not call off one an
            // operator asked for with the swap trigger.
            forceSwap_ = forceSwap_ || swap.asBool();
        }
        if (!thread_) {
            MFW_LOG(CORE::kLogWarning,
                    "CertMonitor::HandleOTPTokenResponseMessage(): Certificate monitor thread not "
                    "running.");
            return;
        }
        token_ = Token{otp, url};
    }
    signalled_.notify_all();
}

bool CertMonitor::processToken() {
    std::optional<Token> token;
    {
        CORE::MutexLock lock(mutex_);
        token = std::exchange(token_, std::nullopt);
    }
    if (!token) {
        return false;
    }
    const bool ok = ProcessOTPTokenResponse(token->otp, token->url);
    if (ok) {
        RefreshSucceeded();
    } else {
        RefreshFailed();
    }
    return ok;
}

bool CertMonitor::CheckCertificateIdentity(const CertContext* context) {
    if (context == nullptr || !context->cert) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::CheckCertificateIdentity(): Invalid client certificate");
        return false;
    }
    const std::string cn = certificates_->GetCertificateCN(context);
    const std::string identity = config_()->getAgentIdentity();
    if (cn.empty()) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::CheckCertificateIdentity(): Unable to verify certificate identity");
        return false;
    }
    if (cn != identity) {
        MFW_LOG(CORE::kLogWarning,
                "CertMonitor::CheckCertificateIdentity(): Client certificate identity %s doesn't "
                "match cert identity %s",
                identity.c_str(), cn.c_str());
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "CertMonitor::CheckCertificateIdentity(): Client certificate matches identity %s",
            identity.c_str());
    return true;
}

bool CertMonitor::CheckCertificateValidity(bool pairingLockHeld) {
    auto cfg = config_();
    const std::string identity = cfg->getAgentIdentity();
    // A pending certificate may name the identity the desktop moves to.
    const std::string pendingIdentity = cfg->certificateIdentity();
    const auto valid = [&](const char* which, const CertContext* context,
                           const std::string& expected) {
        X509* cert = context != nullptr ? x509Of(*context) : nullptr;
        if (cert == nullptr || certificates_->GetCertificateCN(context) != expected) {
            MFW_LOG(CORE::kLogWarning, "%s%s certificate identity doesn't match agent identity.",
                    kValidityPrefix, which);
            return false;
        }
        std::time_t now = std::chrono::system_clock::to_time_t(time_.systemNow());
        if (X509_cmp_time(X509_get0_notBefore(cert), &now) >= 0 ||
            X509_cmp_time(X509_get0_notAfter(cert), &now) <= 0) {
            MFW_LOG(CORE::kLogDebug, "%s%s certificate has expired or is not yet valid.",
                    kValidityPrefix, which);
            return false;
        }
        MFW_LOG(CORE::kLogDebug, "%s%s certificate is valid.", kValidityPrefix, which);
        return true;
    };
    CertChainPtr current;
    if (!certificates_->RetrieveClientCertificateContext(false, &current) ||
        current->endCertificate() == nullptr) {
        MFW_LOG(CORE::kLogError,
                "CertMonitor::CheckCertificateValidity(): Unable to retrieve client certificate");
    } else if (valid("Current", current->endCertificate(), identity)) {
        return true;
    }
    CertChainPtr pending;
    if (!certificates_->RetrieveClientCertificateContext(true, &pending) ||
        pending->endCertificate() == nullptr) {
        MFW_LOG(CORE::kLogDebug,
                "CertMonitor::CheckCertificateValidity(): Pending client certificate not present.");
        TriggerRefresh(false);
        return false;
    }
    if (!valid("Pending", pending->endCertificate(), pendingIdentity)) {
        return false;
    }
    return ActivatePendingCertificate(false, pairingLockHeld);
}

void CertMonitor::sendEvent(int type, const std::string& description) {
    CORE::PropertyBag event;
    event.setInt(L"Type", type);
    CORE::PropertyBag attributes;
    if (!description.empty()) {
        attributes.set(L"Description", CORE::toWide(description));
    }
    event.setBag(L"attributes", attributes);
    // Fire and forget: a stopping desktop manager must not hold the monitor.
    CORE::MessageHandler::PostMsg(L"DesktopManager", L"SendEvent", event);
}

void CertMonitor::noteRenewal(const std::string& result) {
    CORE::MutexLock lock(mutex_);
    lastRenewal_ = Renewal{time_.systemNow(), result};
    ++renewalResults_[result];
    notAfter_.reset();  // a swap brings another certificate
}

std::optional<CertMonitor::Renewal> CertMonitor::lastRenewal() const {
    CORE::MutexLock lock(mutex_);
    return lastRenewal_;
}

std::map<std::string, std::uint64_t> CertMonitor::renewalResults() const {
    CORE::MutexLock lock(mutex_);
    return renewalResults_;
}

std::optional<std::int64_t> CertMonitor::secondsToExpiry() {
    const std::time_t now = std::chrono::system_clock::to_time_t(time_.systemNow());
    {
        CORE::MutexLock lock(mutex_);
        if (notAfter_ && now - notAfterReadAt_ < kExpiryRereadSeconds && now >= notAfterReadAt_) {
            return static_cast<std::int64_t>(*notAfter_ - now);
        }
    }
    // Read with no lock held: the store is another object's.
    CertChainPtr current;
    if (!certificates_->RetrieveClientCertificateContext(false, &current) ||
        current->endCertificate() == nullptr) {
        return std::nullopt;
    }
    X509* cert = x509Of(*current->endCertificate());
    std::tm end{};
    if (cert == nullptr || ASN1_TIME_to_tm(X509_get0_notAfter(cert), &end) != 1) {
        return std::nullopt;
    }
    const std::time_t notAfter = ::timegm(&end);
    CORE::MutexLock lock(mutex_);
    notAfter_ = notAfter;
    notAfterReadAt_ = now;
    return static_cast<std::int64_t>(notAfter - now);
}

}  // namespace ndpx::certs
