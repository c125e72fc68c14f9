#pragma once
// Local stream sockets for the operator's control channel: a listener whose
// accept waits on a stop signal, the peer's credentials as the kernel took
// them at connect time, and line reads and writes bounded in size and time.
// Every wait also ends when the stop signal is set.

#include <platform/UniqueFd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ndpx::platform {

// Set once to end every wait given it, now and later.
class StopSignal {
public:
    StopSignal();
    void set();
    bool isSet() const;
    // Waits until set or `timeout` passes; true when set.
    bool wait(std::chrono::milliseconds timeout) const;
    // For the backend's waits.
    int waitHandle() const { return fd_.get(); }

private:
    UniqueFd fd_;
};

struct PeerCredentials {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::int32_t pid = 0;
};

enum class IoResult { Ok, Closed, TooLong, TimedOut, Stopped, Failed };
const char* ioResultText(IoResult result);

class LocalStream {
public:
    LocalStream() = default;
    explicit LocalStream(UniqueFd fd) : fd_(std::move(fd)) {}
    bool valid() const { return fd_.valid(); }

    // Who connected; nothing when the system cannot say.
    std::optional<PeerCredentials> peerCredentials() const;
    // One line without its '\n'. TooLong once `maxBytes` pass without one;
    // Closed when the peer closed before a full line.
    IoResult readLine(std::string& line, std::size_t maxBytes, std::chrono::milliseconds timeout,
                      const StopSignal* stop = nullptr);
    IoResult writeAll(std::string_view text, std::chrono::milliseconds timeout,
                      const StopSignal* stop = nullptr);

private:
    UniqueFd fd_;
    std::string pending_;  // read past the last line
};

enum class ConnectError { None, NoListener, Denied, Failed };
// Connects to the listener at `path` without waiting for a busy one.
LocalStream connectLocal(const std::filesystem::path& path, ConnectError& why, std::string& error);

class LocalListener {
public:
    LocalListener() = default;
    ~LocalListener();  // removes its socket file
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    // Listens at `path` with mode 0600, replacing a socket file left there
    // (by a host that died) but nothing else.
    bool listen(const std::filesystem::path& path, std::string& error);
    // Waits for the next client; Stopped when `stop` is set.
    IoResult accept(LocalStream& out, const StopSignal& stop, std::string& error);

private:
    UniqueFd fd_;
    std::filesystem::path path_;
};

// A TCP listener on the loopback address only, for a scraper on the same
// machine; its streams are LocalStreams without peer credentials.
class LoopbackListener {
public:
    // Port 0 takes a free port; port() tells which.
    bool listen(std::uint16_t port, std::string& error);
    std::uint16_t port() const { return port_; }
    // Waits for the next client; Stopped when `stop` is set.
    IoResult accept(LocalStream& out, const StopSignal& stop, std::string& error);

private:
    UniqueFd fd_;
    std::uint16_t port_ = 0;
};

}  // namespace ndpx::platform
