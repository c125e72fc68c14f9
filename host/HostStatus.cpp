// What `agentctl status` shows, composed from what the host can see of the
// module without asking it: the module's metric, the settings store and the
// certificate store.

#include "host/ControlServer.h"

#include <certs/CertificateUtil.h>
#include <certs/OpenSslCertificate.h>
#include <certs/linux/OpenSslCertStore.h>
#include <certs/pairingConfig.h>
#include <config/mqttConfig.h>
#include <mfw/corestring.h>
#include <platform/CalendarTime.h>
#include <platform/Paths.h>
#include <platform/SettingsStore.h>
#include <platform/TimeSource.h>

#include <openssl/asn1.h>

#include <ctime>

namespace ndpx::host {
namespace {

Json::Value setting(platform::SettingsStore* store, const char* name) {
    if (store == nullptr) {
        return {};
    }
    const auto value = store->get(kNodeManagerKey, name);
    return value && !value->asText().empty() ? Json::Value(value->asText()) : Json::Value();
}

std::string isoUtc(std::time_t when) {
    const std::tm t = platform::utcCalendarTime(when);
    return CORE::format("%04d-%02d-%02dT%02d:%02d:%02dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                        t.tm_hour, t.tm_min, t.tm_sec);
}

// The current client certificate's end of validity; null when there is none.
Json::Value clientCertificate() {
    certs::OpenSslCertStore store;
    const auto my = store.OpenCertificateStore(certs::kClientCertStoreName);
    const auto found =
        my ? store.FindCertificate(my, certs::kClientCertFriendlyName, "") : std::nullopt;
    X509* cert = found ? certs::x509Of(*found) : nullptr;
    std::tm end{};
    if (cert == nullptr || ASN1_TIME_to_tm(X509_get0_notAfter(cert), &end) != 1) {
        return {};
    }
    const std::time_t notAfter = ::timegm(&end);
    const std::time_t now =
        std::chrono::system_clock::to_time_t(platform::TimeSource::real().systemNow());
    Json::Value out(Json::objectValue);
    out["notAfter"] = isoUtc(notAfter);
    out["secondsToExpiry"] = Json::Int64(notAfter - now);
    return out;
}

}  // namespace

Json::Value composeStatus(const Json::Value& moduleMetric) {
    std::string error;
    const auto store =
        platform::openSqliteSettingsStore(platform::paths::settingsStoreFile().string(), error);
    const Json::Value& value = moduleMetric["value"];
    Json::Value status(Json::objectValue);
    // No metric yet: the module is not loaded, or not collected yet.
    status["state"] = value.isObject() ? value["mqttState"]["state"] : Json::Value();
    status["endpoint"] = setting(store.get(), kEndpointUrlValue);
    status["identity"] = setting(store.get(), "mqtt_AgentIdentity");
    status["clientCertificate"] = clientCertificate();
    const Json::Value& publications = value.isObject() ? value["publications"] : Json::Value();
    status["publications"]["buffered"] = publications.get("buffered", Json::Value());
    status["publications"]["dropped"] = publications.get("dropped", Json::Value());
    status["publications"]["lostInFlight"] = publications.get("lostInFlight", Json::Value());
    const Json::Value& session = value.isObject() ? value["session"] : Json::Value();
    status["session"]["reconnects"] = session.get("reconnects", Json::Value());
    status["session"]["lostSessions"] = session.get("lostSessions", Json::Value());
    return status;
}

}  // namespace ndpx::host
