#pragma once
// A desktop process's connection to the agent's IPC bridge: publish and
// subscribe over the agent's MQTT session.
//
// What a caller must know:
// - The bridge admits only include-listed programs (by executable base name,
//   see docs/ipc-client.md). It closes any other connection at once, which
//   the first receive (or waitForIdentity) reports as IpcErrc::Refused.
// - The bridge never answers subscribe or publish: success means the message
//   was handed to the socket, not that the bridge or the broker took it.
// - Every call blocks at most the time given. stop() (from any thread) or the
//   stop handle becoming readable ends every wait, now and later, with
//   IpcErrc::Stopped: stopping is final, make a new client to go on.
// - Threads: one thread receives (receive, waitForIdentity, identity) while
//   another may send (subscribe, publish); stop() from any thread; connect
//   and close not while another call runs.
// - Needs jsoncpp and ndpx_platform (for its descriptor owner and stop signal).

#include <ipcclient/Identity.h>
#include <ipcclient/IpcError.h>
#include <platform/LocalSocket.h>
#include <platform/UniqueFd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::ipcclient {

// The largest message either way, as the bridge counts it: the whole JSON
// text sent (payloads travel base64-encoded, 4 bytes per 3), and the text,
// line feed and NUL received. The bridge drops a client that sends more.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{256} * 1024;

inline constexpr std::string_view kEndpointGuid = "{1CA68F57-44E0-4475-8065-A32557C79A56}";
// The topic of the bridge's bootstrap (see Identity.h).
inline constexpr std::string_view kIdentityTopic = "core";

// A wait with no time limit.
inline constexpr std::chrono::milliseconds kWaitForever = std::chrono::milliseconds::max();
inline constexpr std::chrono::milliseconds kDefaultSendTimeout = std::chrono::seconds(5);

// The bridge's socket under a machine root: ROOT/run/Brasswick/ipc/<guid>.sock.
std::filesystem::path bridgeSocketPath(const std::filesystem::path& root = "/");

// One message from the bridge.
struct Message {
    std::string topic;
    std::vector<std::uint8_t> payload;  // decoded from base64
    // The bootstrap on topic "core"; its parsed form is identity().
    bool isIdentity = false;
};

class IpcClient {
public:
    IpcClient() = default;
    IpcClient(const IpcClient&) = delete;
    IpcClient& operator=(const IpcClient&) = delete;

    // Connects to the bridge's socket (a previous connection is closed).
    // NoListener, Denied or Failed, with the path, when it cannot. Success
    // does not yet mean admission: see waitForIdentity.
    IpcError connect(const std::filesystem::path& socketPath);
    IpcError connectUnderRoot(const std::filesystem::path& root = "/") {
        return connect(bridgeSocketPath(root));
    }
    void close();
    bool connected() const { return fd_.valid(); }

    // Asks for the messages of these topics (MQTT filters; none empty or
    // holding a comma, which separates them on the wire).
    IpcError subscribe(const std::vector<std::string>& topics,
                       std::chrono::milliseconds timeout = kDefaultSendTimeout);
    // Publishes `payload` (any bytes). InvalidArgument for an empty topic,
    // one with + or #, or qos outside 0..2; TooLarge past kMaxMessageBytes.
    IpcError publish(std::string_view topic, std::span<const std::uint8_t> payload, int qos = 0,
                     bool retain = false, std::chrono::milliseconds timeout = kDefaultSendTimeout);
    IpcError publish(std::string_view topic, std::string_view payload, int qos = 0,
                     bool retain = false, std::chrono::milliseconds timeout = kDefaultSendTimeout);

    // The next message, or nothing with `error` set: TimedOut, Stopped,
    // Refused or Closed (the connection is over), Malformed or TooLarge (that
    // message is skipped; call again for the next), NotConnected, Failed.
    std::optional<Message> receive(std::chrono::milliseconds timeout, IpcError& error);
    // The identity from the bootstrap, waiting for it if none came yet.
    // Other messages received meanwhile are kept for receive. A close before
    // it is Refused: the bridge did not admit this program.
    std::optional<Identity> waitForIdentity(std::chrono::milliseconds timeout, IpcError& error);
    // The latest identity received, if any.
    std::optional<Identity> identity() const;

    // Ends every wait of this client, now and later. Any thread; async-signal
    // safe (one write to an eventfd).
    void stop() { stop_.set(); }
    // A descriptor (a signalfd, a pipe) whose readability also ends every
    // wait; not owned, -1 for none. Set it before the waits begin.
    void setStopHandle(int fd) { externalStop_ = fd; }

private:
    std::optional<Message> receiveBefore(std::chrono::steady_clock::time_point deadline,
                                         IpcError& error);
    // Refused or Closed: did the bridge admit this program first?
    IpcError closedError() const;
    IpcError send(const std::string& packet, std::chrono::milliseconds timeout);

    platform::UniqueFd fd_;
    std::filesystem::path path_;
    platform::StopSignal stop_;
    int externalStop_ = -1;
    std::atomic<bool> heardFromBridge_{false};
    std::vector<char> buffer_;  // receiving side only
    std::deque<Message> kept_;  // receiving side only
    mutable std::mutex identityMutex_;
    std::optional<Identity> identity_;
};

}  // namespace ndpx::ipcclient
