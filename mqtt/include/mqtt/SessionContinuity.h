#pragma once
// Whether the broker kept this desktop's session across a disconnection or a
// restart. Commands the control plane sent while the desktop was away are
// kept in that session; when the broker answers without it (the session
// expired, or the broker lost its state) they are gone, and only a warning
// with the time away and a count in the metrics tell anyone that they may
// need sending again.

#include <platform/TimeSource.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

namespace ndpx {

class SessionContinuity {
public:
    explicit SessionContinuity(platform::TimeSource& time) : time_(time) {}

    // Where the last known connection state is kept across restarts (a small
    // file in the persistence folder), and the client ID now in use.
    void setMarker(std::filesystem::path file, std::string clientId);
    // A connection was made; `sessionPresent` as the broker answered. Logs
    // and counts a session that was expected and is gone.
    void connected(bool sessionPresent, bool cleanStart);
    // The connection was lost, or (`stopping`) closed for good.
    void disconnected(bool stopping = false);

    std::uint64_t lostSessions() const { return lost_.load(); }
    std::uint64_t reconnects() const { return reconnects_.load(); }
    // Time spent connected since the module started, whole seconds.
    std::uint64_t connectedSeconds() const;

private:
    struct Marker {
        std::string clientId;
        std::int64_t unixSeconds = 0;
    };
    std::optional<Marker> readMarker(const std::filesystem::path& file) const;
    void writeMarker(const std::filesystem::path& file, const std::string& clientId) const;

    platform::TimeSource& time_;
    mutable std::mutex mutex_;
    // The dispatch thread's connection events and Stop's own both write the
    // marker: one at a time, so the file holds the last of them whole.
    mutable std::mutex writeMutex_;
    std::filesystem::path markerFile_;
    std::string clientId_;
    // The client ID of this process's last connection, empty before the first.
    std::string lastConnectedId_;
    std::optional<platform::TimeSource::SteadyTime> lostAt_;
    // Connected since then; the connections before lasted connectedBefore_.
    std::optional<platform::TimeSource::SteadyTime> connectedSince_;
    platform::TimeSource::SteadyTime::duration connectedBefore_{};
    // When a connection last wrote the marker: a connection that flaps
    // writes it at most every few seconds.
    std::optional<platform::TimeSource::SteadyTime> markedAt_;
    std::atomic<std::uint64_t> lost_{0};
    std::atomic<std::uint64_t> reconnects_{0};
};

}  // namespace ndpx
