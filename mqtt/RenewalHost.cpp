// What the certificate monitor needs of the session: the credentials request
// published, the exchange at the credential service, a pending certificate
// tried against the broker, the pairing lock, and the reconnect after a swap.

#include "config/EndpointUrl.h"
#include "mqtt/MqttManager.h"

#include "TlsRefusalProbe.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/CalendarTime.h>
#include <platform/Paths.h>

namespace ndpx {

bool MqttManager::clientCertificateUsable(bool pairingLockHeld) {
    if (deps_.clientCertificateUsable) {
        return deps_.clientCertificateUsable();
    }
    return certMonitor_->CheckCertificateValidity(pairingLockHeld);
}

Json::Value MqttManager::certificateMetric() {
    Json::Value out(Json::objectValue);
    if (const auto left = certMonitor_->secondsToExpiry()) {
        out["secondsToExpiry"] = Json::Int64(*left);
    }
    if (const auto renewal = certMonitor_->lastRenewal()) {
        const std::tm t =
            platform::utcCalendarTime(std::chrono::system_clock::to_time_t(renewal->when));
        out["lastRenewal"] = CORE::format("%04d-%02d-%02dT%02d:%02d:%02dZ", t.tm_year + 1900,
                                          t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
        out["lastRenewalResult"] = renewal->result;
    }
    return out.empty() ? Json::Value() : out;
}

bool MqttManager::publishCredentialsRequest(const Json::Value& request) {
    return PublishMessage(publishTopics().otpRequest, request, true);
}

bool MqttManager::requestCredentials(const std::string& url, const std::string& vmId,
                                     const std::string& otp, const std::string& csrBase64,
                                     std::string& response, CORE::coreevent& abort) {
    // Ends when the monitor stops or the manager does.
    CORE::coreevent ended(CORE::coreevent::Reset::Manual, false, *deps_.time);
    CORE::coreevent::Waker onAbort(abort, [&ended] { ended.set(); });
    CORE::coreevent::Waker onShutdown(shutdownEvent_, [&ended] { ended.set(); });
    return registration_.MakeOTPRequest(url, vmId, otp, csrBase64, response, ended);
}

bool MqttManager::brokerAccepts(const std::string& certPem, const std::string& keyPem,
                                CORE::coreevent& abort) {
    const std::optional<ConnectionMaterial> material =
        deps_.connectionMaterial ? deps_.connectionMaterial() : std::nullopt;
    const auto endpoint = parseEndpointUrl(material ? material->endpointUrl : std::string());
    const std::filesystem::path dir = persistenceFolder();
    if (!endpoint || dir.empty()) {
        MFW_LOG(CORE::kLogWarning,
                "MqttManager::brokerAccepts(): No broker to try the pending certificate with");
        return false;
    }
    // The same trust as the client's, the pending certificate in place of
    // the current one; the key file goes again at once.
    std::string trust = material->caCertPem;
    if (!trust.empty() && trust.back() != '\n') {
        trust += '\n';
    }
    trust += material->systemRootsPem;
    const auto trustFile = (dir / "mqtt-pending-trust.pem").string();
    const auto certFile = (dir / "mqtt-pending.pem").string();
    const auto keyFile = (dir / "mqtt-pending.key").string();
    std::string error;
    const bool written = platform::paths::writePrivateFile(trustFile, trust, error) &&
                         platform::paths::writePrivateFile(certFile, certPem, error) &&
                         platform::paths::writePrivateFile(keyFile, keyPem, error);
    TlsProbeResult result = TlsProbeResult::Unreachable;
    if (written) {
        net::CancelToken cancel;
        CORE::coreevent::Waker onAbort(abort, [&cancel] { cancel.cancel(); });
        CORE::coreevent::Waker onShutdown(shutdownEvent_, [&cancel] { cancel.cancel(); });
        result = probeTls(endpoint->host, endpoint->port, trustFile, certFile, keyFile, &cancel);
    } else {
        MFW_LOG(CORE::kLogError, "MqttManager::brokerAccepts(): Unable to write %s", error.c_str());
    }
    for (const auto& file : {trustFile, certFile, keyFile}) {
        platform::paths::removeFile(file);
    }
    MFW_LOG(CORE::kLogInfo, "MqttManager::brokerAccepts(): The broker %s the pending certificate",
            result == TlsProbeResult::Accepted  ? "accepts"
            : result == TlsProbeResult::Refused ? "refuses"
                                                : "could not be reached to try");
    return result == TlsProbeResult::Accepted;
}

CORE::Mutex& MqttManager::pairingLock() {
    return registration_.mutex();
}

void MqttManager::certificateSwapped() {
    // A certificate for new IDs moves the session to their topics; the
    // reconnect leaves the old ones.
    const SubscribeTopics current = subscribeTopics();
    if (!current.empty() && topicsFromConfig().first != current) {
        MFW_LOG(CORE::kLogInfo,
                "MqttManager::certificateSwapped(): The agent identity changed to %s; moving to "
                "its topics",
                config()->getAgentIdentity().c_str());
        ConfigureTopicNames();
    }
    MFW_LOG(CORE::kLogInfo,
            "MqttManager::certificateSwapped(): Reconnecting with the new client certificate");
    healing_.ReconnectNow();
}

}  // namespace ndpx
