#pragma once
// The registration thread's work: the ten-step chain that takes a machine
// from provisioned or paired to connected, the waits before it, and the
// values its steps share. The registration mutex is held for the whole
// chain; healing and the endpoint change take it around
// RevertToRequireBootstrap, the certificate swap around its swap.

#include "mqtt/ManagerDependencies.h"

#include <mfw/coreevent.h>
#include <mfw/corelock.h>
#include <platform/FileCreationWaiter.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ndpx {

class MqttManager;
class pairingConfig;

class Registration {
public:
    Registration(MqttManager& manager, std::shared_ptr<certs::CertificateUtil> certificates,
                 std::shared_ptr<CredentialRequester> credentials);
    ~Registration();
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    // Start: every per-run value back to its initial state.
    void resetRunData() MFW_EXCLUDES(mutex_);
    // Stop: ends a wait for the provisioning file (the shutdown event ends
    // the others, and cancels a credential request).
    void interrupt();

    // The thread body.
    void RegistrationThreadProc() MFW_EXCLUDES(mutex_);

    bool WaitForFFCustomization();
    bool WaitForLCMGeneratedSpec() MFW_EXCLUDES(mutex_);
    bool WaitForLCMFileCreation();

    // The steps; the chain holds the mutex.
    bool ParseLCMSpec() MFW_REQUIRES(mutex_);
    // While a migration is in progress MQTT only joins the notify queue and
    // the older transport stays registered; `commit` (the migration's
    // commit) hands the transport over.
    bool RegisterMessageTransport(bool commit);
    bool ReadAndValidatePairingData() MFW_REQUIRES(mutex_);
    bool CreateAgentKeyPair() MFW_REQUIRES(mutex_);
    bool RequestCredentials() MFW_REQUIRES(mutex_);
    // The one-time-password exchange, for pairing and for renewal alike;
    // it ends when `abort` is set.
    bool MakeOTPRequest(const std::string& url, const std::string& vmId, const std::string& otp,
                        const std::string& csrBase64, std::string& response,
                        CORE::coreevent& abort);
    bool StorePairingData() MFW_REQUIRES(mutex_);
    bool MarkPairedState() MFW_REQUIRES(mutex_);
    bool HandleActiveRetries() MFW_REQUIRES(mutex_);
    bool HandlePendingRetries() MFW_REQUIRES(mutex_);
    void UpdateIDs();

    // Back to the state in which only a new LCM spec (or pending values)
    // starts pairing; `forgetPairingData` also drops the stored endpoint,
    // bootstrap topic and client certificate.
    void RevertToRequireBootstrap(bool forgetPairingData) MFW_REQUIRES(mutex_);
    // The same from outside the chain, taking the mutex, with its reason.
    void revertToRequireBootstrap(bool forgetPairingData, const std::string& reason)
        MFW_EXCLUDES(mutex_);

    // Ends a quiesced wait at once, so the thread looks again whether MQTT is
    // needed (a migration's bootstrap has just been written).
    void wakeQuiesced();

    void requestReboot() { rebootRequested_ = true; }
    bool registrationCompleted() const { return registrationCompleted_.load(); }
    std::string lastFailureReason() MFW_EXCLUDES(mutex_);

    CORE::Mutex& mutex() MFW_RETURN_CAPABILITY(mutex_) { return mutex_; }

private:
    friend class MqttManagerTestPeer;

    void failed(const char* reason) MFW_REQUIRES(mutex_) { failureReason_ = reason; }
    // Counted for the metrics, by a short reason fit for a label.
    void pairingFailed(const char* reason);
    enum class ChainResult { Completed, Failed, Ended };
    ChainResult runChain() MFW_EXCLUDES(mutex_);
    // True when the wait ended because the manager is stopping.
    bool waitWhileQuiesced(std::chrono::milliseconds limit);

    MqttManager& manager_;
    const std::shared_ptr<certs::CertificateUtil> certificates_;
    const std::shared_ptr<CredentialRequester> credentials_;
    platform::FileCreationWaiter fileWaiter_;
    CORE::coreevent quiescedWake_;

    CORE::Mutex mutex_;
    bool needBootstrap_ MFW_GUARDED_BY(mutex_) = false;
    bool parseLcmSpec_ MFW_GUARDED_BY(mutex_) = false;
    bool sameIdentity_ MFW_GUARDED_BY(mutex_) = false;
    unsigned activeRetries_ MFW_GUARDED_BY(mutex_) = 0;
    unsigned pendingRetries_ MFW_GUARDED_BY(mutex_) = 0;
    unsigned maxCachedRetries_ MFW_GUARDED_BY(mutex_) = 3;
    std::string keyContainer_ MFW_GUARDED_BY(mutex_);
    std::vector<std::uint8_t> keyBlob_ MFW_GUARDED_BY(mutex_);
    std::string failureReason_ MFW_GUARDED_BY(mutex_);
    // The credentials answer, parsed in step 5 and stored in step 6.
    std::shared_ptr<mqttConfig> pairingConfigOwner_ MFW_GUARDED_BY(mutex_);
    std::unique_ptr<pairingConfig> pendingPairing_ MFW_GUARDED_BY(mutex_);
    // Read without the mutex (the thread's loop, other threads).
    std::atomic<bool> registrationCompleted_{false};
    std::atomic<bool> rebootRequested_{false};
    std::atomic<bool> transportRegistered_{false};
};

}  // namespace ndpx
