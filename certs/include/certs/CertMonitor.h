#pragma once
// Keeps the agent's client certificate alive. A thread checks it about once
// per "mqtt_CertMonitorIntervalHours" against two deadlines; when it is due
// to expire it obtains a pending certificate (a one-time password asked for
// over MQTT, exchanged at the credential service) and swaps it in when the
// current one would lapse before the next check, or on demand. Before a swap
// the broker must accept the pending certificate; the swap itself is
// recorded first, so that a crash half-way through is completed (or
// forgotten) at the next start.

#include "certs/CertUtilityInterface.h"

#include <mfw/coreevent.h>
#include <mfw/corelock.h>
#include <mfw/corethread.h>
#include <platform/TimeSource.h>

#include <json/value.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>

namespace ndpx {

class mqttConfig;

namespace certs {

class CertificateUtil;

// What the monitor needs of the session; the manager provides it.
class CertMonitorHost {
public:
    virtual ~CertMonitorHost() = default;
    // Publishes the credentials request; false when it could not be sent.
    virtual bool publishCredentialsRequest(const Json::Value& request) = 0;
    // The one-time-password exchange at the credential service, as pairing
    // makes it. True and the answer when the exchange itself worked. Both
    // calls end early when `abort` is set (the monitor stops).
    virtual bool requestCredentials(const std::string& url, const std::string& vmId,
                                    const std::string& otp, const std::string& csrBase64,
                                    std::string& response, CORE::coreevent& abort) = 0;
    // Does the broker accept this client certificate and key?
    virtual bool brokerAccepts(const std::string& certPem, const std::string& keyPem,
                               CORE::coreevent& abort) = 0;
    // The lock of the pairing state, held around a swap.
    virtual CORE::Mutex& pairingLock() = 0;
    // The certificates were swapped: connect again with the new one.
    virtual void certificateSwapped() = 0;
};

// Event types reported to the desktop manager.
inline constexpr int kEventRefreshedCertificates = 1015;
inline constexpr int kEventCertificateRefreshFailed = 1016;
inline constexpr int kEventSwappedCertificates = 1017;
inline constexpr int kEventSwapFailed = 1018;

// What a renewal step ended with: the metric's last result, and a count of
// each since the monitor started.
namespace renewal {
inline constexpr const char* kNoOneTimePassword = "no one-time password";
inline constexpr const char* kServiceError = "credential service error";
inline constexpr const char* kObtained = "pending certificate obtained";
inline constexpr const char* kNoPending = "no pending certificate of the agent identity";
inline constexpr const char* kRefused = "pending certificate refused by the broker";
inline constexpr const char* kSwapFailed = "swap failed";
inline constexpr const char* kSwappedOnDemand = "swapped on demand";
inline constexpr const char* kSwapped = "swapped";
inline constexpr std::array kResults{kNoOneTimePassword, kServiceError, kObtained,
                                     kNoPending,         kRefused,      kSwapFailed,
                                     kSwappedOnDemand,   kSwapped};
}  // namespace renewal

class CertMonitor {
public:
    using ConfigSource = std::function<std::shared_ptr<mqttConfig>()>;

    CertMonitor(CertMonitorHost& host, ConfigSource config,
                std::shared_ptr<CertificateUtil> certificates,
                platform::TimeSource& time = platform::TimeSource::real());
    ~CertMonitor();
    CertMonitor(const CertMonitor&) = delete;
    CertMonitor& operator=(const CertMonitor&) = delete;

    bool Start() MFW_EXCLUDES(mutex_);
    bool Stop() MFW_EXCLUDES(mutex_);

    // Wake the thread for a check (`forced`: obtain a pending certificate
    // whatever the deadlines say); only while it waits.
    void TriggerRefresh(bool forced) MFW_EXCLUDES(mutex_);
    // The same, and swap the pending certificate in.
    void TriggerRefreshAndSwap() MFW_EXCLUDES(mutex_);
    // The desktop moves to new IDs: a check obtains a certificate for the
    // new identity and swaps it in (see mqttConfig::beginIdentityMove).
    // Unlike the triggers it is not lost while the thread is busy.
    void IdentityMoved() MFW_EXCLUDES(mutex_);
    void RefreshSucceeded() MFW_EXCLUDES(mutex_);
    void RefreshFailed() MFW_EXCLUDES(mutex_);

    // The current client certificate, or else the pending one (swapped in),
    // is present, valid now and issued to the agent identity.
    // `pairingLockHeld`: the caller holds the host's pairing lock already
    // (the registration chain does).
    bool CheckCertificateValidity(bool pairingLockHeld = false);
    bool CheckCertificateIdentity(const CertContext* context);

    // An answer on the credentials token topic (on the session's executor).
    // The exchange it starts runs on the monitor's thread, so the caller's
    // thread goes on with other messages meanwhile.
    void HandleOTPTokenResponseMessage(const Json::Value& json) MFW_EXCLUDES(mutex_);

    // Start-up: a swap that a crash interrupted is completed when the
    // certificate store made the pending certificate current, else
    // forgotten; either way certificate and pairing values match again.
    void RepairInterruptedSwap();

    // The last renewal (a pending certificate obtained or swapped in), for
    // the metrics; nothing before the first.
    struct Renewal {
        std::chrono::system_clock::time_point when;
        std::string result;
    };
    std::optional<Renewal> lastRenewal() const MFW_EXCLUDES(mutex_);
    // How often each renewal result came, since the monitor started.
    std::map<std::string, std::uint64_t> renewalResults() const MFW_EXCLUDES(mutex_);
    // Seconds until the current client certificate expires; nothing when
    // there is none. Asked at every metrics collection, so the certificate's
    // end is read from the store at most every kExpiryRereadSeconds, and
    // again after a renewal of ours.
    std::optional<std::int64_t> secondsToExpiry() MFW_EXCLUDES(mutex_);
    static constexpr std::int64_t kExpiryRereadSeconds = 600;

private:
    enum class Wake { Shutdown, Refresh, Token, TimedOut };
    struct Token {
        std::string otp;  // a secret: never logged
        std::string url;
    };

    void CertificateMonitorThreadProc();
    bool ClientCertificateRefresh();
    bool GeneratePendingCertificate();
    bool IssueOTPTokenRequest(const Json::Value& request);
    bool ProcessOTPTokenResponse(const std::string& otp, const std::string& url);
    // Processes a token handed over by HandleOTPTokenResponseMessage.
    bool processToken() MFW_EXCLUDES(mutex_);
    bool ActivatePendingCertificate(bool swapForced, bool pairingLockHeld);
    bool swapLocked();
    // Waits until `deadline` for the signals in `wanted` (a token always
    // ends the wait), with `threadWaiting` set when `asWaiting`.
    Wake waitFor(platform::TimeSource::SteadyTime deadline, bool refreshEnds, bool asWaiting)
        MFW_EXCLUDES(mutex_);
    void sendEvent(int type, const std::string& description = {});
    void noteRenewal(const std::string& result) MFW_EXCLUDES(mutex_);
    Json::Value credentialsRequest(const std::string& reason);
    bool triggerIfWaiting(const char* notRunning, bool forced, bool swap) MFW_EXCLUDES(mutex_);
    // Records the answer to a token request and wakes the waiting thread.
    void signalOutcome(bool succeeded, const char* notRunning) MFW_EXCLUDES(mutex_);

    CertMonitorHost& host_;
    const ConfigSource config_;
    const std::shared_ptr<CertificateUtil> certificates_;
    platform::TimeSource& time_;

    // Set by Stop: ends the host's calls made for the thread.
    CORE::coreevent stopEvent_;
    mutable CORE::Mutex mutex_;
    std::condition_variable signalled_;
    // The four signals: shutdown ends the thread, refresh ends its wait,
    // success and failure end a wait for a token answer.
    bool shutdown_ MFW_GUARDED_BY(mutex_) = false;
    bool refresh_ MFW_GUARDED_BY(mutex_) = false;
    bool success_ MFW_GUARDED_BY(mutex_) = false;
    bool failure_ MFW_GUARDED_BY(mutex_) = false;
    bool threadWaiting_ MFW_GUARDED_BY(mutex_) = false;
    bool forcedRefresh_ MFW_GUARDED_BY(mutex_) = false;
    bool forceSwap_ MFW_GUARDED_BY(mutex_) = false;
    std::optional<std::uint64_t> lastOtpTicks_ MFW_GUARDED_BY(mutex_);
    std::optional<Token> token_ MFW_GUARDED_BY(mutex_);
    std::optional<Renewal> lastRenewal_ MFW_GUARDED_BY(mutex_);
    std::map<std::string, std::uint64_t> renewalResults_ MFW_GUARDED_BY(mutex_);
    // The current certificate's end and when it was read, for secondsToExpiry.
    std::optional<std::time_t> notAfter_ MFW_GUARDED_BY(mutex_);
    std::time_t notAfterReadAt_ MFW_GUARDED_BY(mutex_) = 0;
    std::unique_ptr<CORE::corethread> thread_ MFW_GUARDED_BY(mutex_);

    // The thread's alone.
    std::mt19937 generator_;
    std::string reason_;  // why it asks for a pending certificate
};

}  // namespace certs
}  // namespace ndpx
