// The figures the session's metric carries beside its state: publications,
// the session's continuity, commands, pairing, the client certificate and
// the IPC bridge's clients.

#include "mqtt/MqttManager.h"

namespace ndpx {

Json::Value MqttManager::metricDetails() {
    Json::Value out(Json::objectValue);
    Json::Value& publications = out["publications"];
    publications["buffered"] = Json::UInt64(bufferedPublications_.load());
    publications["dropped"] = Json::UInt64(droppedPublications_.load());
    publications["lostInFlight"] = Json::UInt64(failedPublications_.load());
    Json::Value& session = out["session"];
    session["reconnects"] = Json::UInt64(session_.reconnects());
    session["lostSessions"] = Json::UInt64(session_.lostSessions());
    session["connectedSeconds"] = Json::UInt64(session_.connectedSeconds());
    out["commands"] = counters_.commands();
    out["pairing"] = counters_.pairing();
    Json::Value certificate = certificateMetric();
    Json::Value& renewals = certificate["renewals"] = Json::Value(Json::objectValue);
    for (const auto& [result, count] : certMonitor_->renewalResults()) {
        renewals[result] = Json::UInt64(count);
    }
    out["clientCertificate"] = std::move(certificate);
    out["ipc"]["clients"] = Json::UInt64(ipc_->clientCount());
    return out;
}

}  // namespace ndpx
