#include "mqtt/SessionContinuity.h"

#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <fstream>
#include <sstream>
#include <utility>

namespace ndpx {

using std::chrono::duration_cast;
using std::chrono::seconds;

void SessionContinuity::setMarker(std::filesystem::path file, std::string clientId) {
    std::lock_guard lock(mutex_);
    markerFile_ = std::move(file);
    clientId_ = std::move(clientId);
}

void SessionContinuity::connected(bool sessionPresent, bool cleanStart) {
    std::filesystem::path file;
    std::string clientId;
    std::string previousId;
    std::optional<platform::TimeSource::SteadyTime> lostAt;
    bool mark = false;
    {
        std::lock_guard lock(mutex_);
        file = markerFile_;
        clientId = clientId_;
        previousId = std::exchange(lastConnectedId_, clientId_);
        lostAt = std::exchange(lostAt_, std::nullopt);
        const auto now = time_.steadyNow();
        if (!connectedSince_) {
            connectedSince_ = now;
        }
        mark = !markedAt_ || previousId != clientId || now - *markedAt_ >= std::chrono::seconds(5);
        if (mark) {
            markedAt_ = now;
        }
    }
    if (!previousId.empty()) {
        reconnects_.fetch_add(1);
    }
    // A clean start asks for no session; a new client ID never had one.
    if (!sessionPresent && !cleanStart) {
        if (!previousId.empty() && previousId == clientId) {
            const auto away =
                lostAt ? duration_cast<seconds>(time_.steadyNow() - *lostAt).count() : 0;
            const auto n = lost_.fetch_add(1) + 1;
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::OnReconnected(): The broker kept no session for this desktop "
                    "after %lld s away: commands sent meanwhile are lost unless the control plane "
                    "sends them again (lost sessions: %llu)",
                    static_cast<long long>(away), static_cast<unsigned long long>(n));
        } else if (const auto marker = file.empty() ? std::nullopt : readMarker(file);
                   previousId.empty() && marker && marker->clientId == clientId) {
            const auto now = duration_cast<seconds>(time_.systemNow().time_since_epoch()).count();
            const auto n = lost_.fetch_add(1) + 1;
            MFW_LOG(CORE::kLogWarning,
                    "MqttManager::OnConnectionSuccess(): The broker kept no session for this "
                    "desktop, last known connected %lld s ago before this start: commands sent "
                    "meanwhile are lost unless the control plane sends them again (lost sessions: "
                    "%llu)",
                    static_cast<long long>(now - marker->unixSeconds),
                    static_cast<unsigned long long>(n));
        }
    }
    if (mark && !file.empty()) {
        writeMarker(file, clientId);
    }
}

void SessionContinuity::disconnected(bool stopping) {
    std::filesystem::path file;
    std::string clientId;
    {
        std::lock_guard lock(mutex_);
        if (lastConnectedId_.empty() || (lostAt_ && !stopping)) {
            return;  // never connected, or already away
        }
        const auto now = time_.steadyNow();
        if (connectedSince_) {
            connectedBefore_ += now - *std::exchange(connectedSince_, std::nullopt);
        }
        if (!lostAt_) {
            lostAt_ = now;
        }
        if (!stopping && markedAt_ && now - *markedAt_ < std::chrono::seconds(5)) {
            return;  // a flapping connection: the marker is recent enough
        }
        markedAt_ = now;
        file = markerFile_;
        clientId = lastConnectedId_;
    }
    if (!file.empty()) {
        writeMarker(file, clientId);
    }
}

std::uint64_t SessionContinuity::connectedSeconds() const {
    std::lock_guard lock(mutex_);
    auto total = connectedBefore_;
    if (connectedSince_) {
        total += time_.steadyNow() - *connectedSince_;
    }
    return static_cast<std::uint64_t>(duration_cast<seconds>(total).count());
}

std::optional<SessionContinuity::Marker> SessionContinuity::readMarker(
    const std::filesystem::path& file) const {
    std::ifstream in(file);
    Marker marker;
    if (!(in >> marker.unixSeconds) || !(in >> std::ws) || !std::getline(in, marker.clientId)) {
        return std::nullopt;
    }
    return marker;
}

void SessionContinuity::writeMarker(const std::filesystem::path& file,
                                    const std::string& clientId) const {
    std::lock_guard lock(writeMutex_);
    std::ostringstream text;
    text << duration_cast<seconds>(time_.systemNow().time_since_epoch()).count() << '\n'
         << clientId << '\n';
    std::string error;
    if (!platform::paths::writePrivateFile(file, text.str(), error)) {
        MFW_LOG(CORE::kLogDebug, "MqttManager: Unable to record the connection state in %s: %s",
                file.string().c_str(), error.c_str());
    }
}

}  // namespace ndpx
