// The Linux backend of the bridge connection: AF_UNIX SOCK_SEQPACKET, one
// message per send and receive, every wait a poll on the socket and the stop
// handles.

#include "../src/BridgeSocket.h"

#include <ipcclient/IpcClient.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <system_error>

namespace ndpx::ipcclient::detail {
namespace {

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

enum class Wait { Ready, TimedOut, Stopped, Failed };

// Waits for `events` on `fd`; a stop handle that is readable wins.
Wait waitFor(int fd, short events, Clock::time_point deadline, StopHandles stops) {
    for (;;) {
        int left = -1;
        if (deadline != Clock::time_point::max()) {
            const auto ms =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            left = static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
        }
        pollfd fds[3] = {{fd, events, 0}, {stops.first, POLLIN, 0}, {stops.second, POLLIN, 0}};
        const int n = ::poll(fds, 3, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Wait::Failed;
        }
        if (fds[1].revents != 0 || fds[2].revents != 0) {
            return Wait::Stopped;
        }
        if (fds[0].revents != 0) {
            return Wait::Ready;
        }
        if (left == 0) {
            return Wait::TimedOut;
        }
    }
}

IpcError waitError(Wait wait, const char* what) {
    const int e = errno;  // of the poll that failed
    switch (wait) {
        case Wait::TimedOut:
            return {IpcErrc::TimedOut, std::string("timed out ") + what};
        case Wait::Stopped:
            return {IpcErrc::Stopped, std::string("stopped ") + what};
        case Wait::Failed:
            return {IpcErrc::Failed, std::string("poll failed ") + what + ": " + errnoText(e)};
        case Wait::Ready:
            break;
    }
    return {};
}

// recv's 0 is both an empty message and the end: the end sets the hang-up.
bool peerClosed(int fd) {
    pollfd p = {fd, POLLRDHUP, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP)) != 0;
}

}  // namespace

platform::UniqueFd connectBridge(const std::filesystem::path& path, IpcError& error) {
    const std::string text = path.string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (text.size() >= sizeof address.sun_path) {
        error = {IpcErrc::Failed, "the socket path is too long: " + text};
        return {};
    }
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    platform::UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        error = {IpcErrc::Failed, "cannot make a socket: " + errnoText(errno)};
        return {};
    }
    // The system refuses a message larger than the send buffer (about 208 KiB
    // by default). It doubles what is asked here (within its cap), which is
    // room enough for the largest message; if it refuses, sends say so.
    const int sendBuffer = static_cast<int>(kMaxMessageBytes + 4096);
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int e = errno;
        switch (e) {
            case ENOENT:
            case ECONNREFUSED:
                error = {IpcErrc::NoListener,
                         "nothing listens at " + text + ": is the agent running?"};
                break;
            case EACCES:
            case EPERM:
                error = {IpcErrc::Denied, "no permission to connect to " + text};
                break;
            case EAGAIN:
                error = {IpcErrc::Failed,
                         "the bridge at " + text + " is busy (too many waiting connections)"};
                break;
            case EPROTOTYPE:
                error = {IpcErrc::Failed,
                         text + " is not the bridge (not a SOCK_SEQPACKET socket)"};
                break;
            default:
                error = {IpcErrc::Failed, "cannot connect to " + text + ": " + errnoText(e)};
        }
        return {};
    }
    error = {};
    return fd;
}

IpcError sendPacket(int fd, std::string_view packet, Clock::time_point deadline,
                    StopHandles stops) {
    for (;;) {
        const ssize_t n = ::send(fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n >= 0) {
            return {};  // a message goes whole or not at all
        }
        const int e = errno;
        if (e == EPIPE || e == ECONNRESET || e == ENOTCONN) {
            return {IpcErrc::Closed, {}};
        }
        if (e == EMSGSIZE) {
            return {IpcErrc::TooLarge,
                    "the system refused a message of " + std::to_string(packet.size()) + " bytes"};
        }
        if (e != EAGAIN && e != EINTR) {
            return {IpcErrc::Failed, "cannot send to the bridge: " + errnoText(e)};
        }
        if (const Wait wait = waitFor(fd, POLLOUT, deadline, stops); wait != Wait::Ready) {
            return waitError(wait, "sending to the bridge (it does not read)");
        }
    }
}

IpcError receivePacket(int fd, std::vector<char>& buffer, std::size_t& size,
                       Clock::time_point deadline, StopHandles stops) {
    for (;;) {
        if (const Wait wait = waitFor(fd, POLLIN, deadline, stops); wait != Wait::Ready) {
            return waitError(wait, "waiting for the bridge");
        }
        const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0) {
            const int e = errno;
            if (e == EAGAIN || e == EINTR) {
                continue;
            }
            if (e == ECONNRESET) {
                return {IpcErrc::Closed, {}};
            }
            return {IpcErrc::Failed, "cannot receive from the bridge: " + errnoText(e)};
        }
        if (n == 0 && peerClosed(fd)) {
            return {IpcErrc::Closed, {}};
        }
        if (static_cast<std::size_t>(n) > buffer.size()) {
            return {IpcErrc::TooLarge, "the bridge sent a message of " + std::to_string(n) +
                                           " bytes, above the limit of " +
                                           std::to_string(buffer.size()) + "; it is skipped"};
        }
        size = static_cast<std::size_t>(n);
        return {};
    }
}

bool messageWaiting(int fd) {
    char byte = 0;
    return ::recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
}

std::string executableBaseName() {
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/self/exe", ec).filename().string();
}

}  // namespace ndpx::ipcclient::detail
