#include <platform/LocalSocket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace ndpx::platform {
namespace {

using Clock = std::chrono::steady_clock;

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

constexpr Clock::time_point kNoDeadline = Clock::time_point::max();

// Waits for `events` on `fd` until `deadline`; Ok when ready.
IoResult waitFor(int fd, short events, Clock::time_point deadline, const StopSignal* stop) {
    for (;;) {
        long long left = -1;
        if (deadline != kNoDeadline) {
            left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) {
                return IoResult::TimedOut;
            }
        }
        pollfd fds[2] = {{fd, events, 0}, {stop != nullptr ? stop->waitHandle() : -1, POLLIN, 0}};
        const int n = ::poll(fds, 2, static_cast<int>(left));
        if (n < 0 && errno != EINTR) {
            return IoResult::Failed;
        }
        if (n > 0 && (fds[1].revents & POLLIN) != 0) {
            return IoResult::Stopped;
        }
        if (n > 0 && fds[0].revents != 0) {
            return IoResult::Ok;
        }
    }
}

bool socketAddress(const std::filesystem::path& path, sockaddr_un& address, std::string& error) {
    address = {};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) {
        error = "socket path too long: " + text;
        return false;
    }
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return true;
}

IoResult acceptOn(int listening, LocalStream& out, const StopSignal& stop, std::string& error) {
    for (;;) {
        const IoResult ready = waitFor(listening, POLLIN, kNoDeadline, &stop);
        if (ready != IoResult::Ok) {
            error = ioResultText(ready);
            return ready;
        }
        UniqueFd client(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (client) {
            out = LocalStream(std::move(client));
            return IoResult::Ok;
        }
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            error = errnoText(errno);
            return IoResult::Failed;
        }
    }
}

}  // namespace

StopSignal::StopSignal() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void StopSignal::set() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(fd_.get(), &one, sizeof one);
}

bool StopSignal::isSet() const {
    return wait(std::chrono::milliseconds(0));
}

bool StopSignal::wait(std::chrono::milliseconds timeout) const {
    // Polled, not read: the signal stays set for every later wait.
    pollfd fd = {fd_.get(), POLLIN, 0};
    for (;;) {
        const int n = ::poll(&fd, 1, static_cast<int>(timeout.count()));
        if (n >= 0 || errno != EINTR) {
            return n > 0;
        }
    }
}

const char* ioResultText(IoResult result) {
    switch (result) {
        case IoResult::Ok:
            return "ok";
        case IoResult::Closed:
            return "closed by the peer";
        case IoResult::TooLong:
            return "line too long";
        case IoResult::TimedOut:
            return "timed out";
        case IoResult::Stopped:
            return "stopped";
        case IoResult::Failed:
            break;
    }
    return "failed";
}

std::optional<PeerCredentials> LocalStream::peerCredentials() const {
    ucred cred{};
    socklen_t size = sizeof cred;
    if (::getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 ||
        size != sizeof cred) {
        return std::nullopt;
    }
    return PeerCredentials{cred.uid, cred.gid, cred.pid};
}

IoResult LocalStream::readLine(std::string& line, std::size_t maxBytes,
                               std::chrono::milliseconds timeout, const StopSignal* stop) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (const auto end = pending_.find('\n'); end != std::string::npos) {
            if (end > maxBytes) {
                return IoResult::TooLong;
            }
            line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return IoResult::Ok;
        }
        if (pending_.size() > maxBytes) {
            return IoResult::TooLong;
        }
        if (const IoResult ready = waitFor(fd_.get(), POLLIN, deadline, stop);
            ready != IoResult::Ok) {
            return ready;
        }
        char buffer[8192];
        const ssize_t n = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (n == 0) {
            return IoResult::Closed;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return errno == ECONNRESET ? IoResult::Closed : IoResult::Failed;
        }
        pending_.append(buffer, static_cast<std::size_t>(n));
    }
}

IoResult LocalStream::writeAll(std::string_view text, std::chrono::milliseconds timeout,
                               const StopSignal* stop) {
    const auto deadline = Clock::now() + timeout;
    while (!text.empty()) {
        if (const IoResult ready = waitFor(fd_.get(), POLLOUT, deadline, stop);
            ready != IoResult::Ok) {
            return ready;
        }
        const ssize_t n = ::send(fd_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return errno == EPIPE || errno == ECONNRESET ? IoResult::Closed : IoResult::Failed;
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return IoResult::Ok;
}

LocalStream connectLocal(const std::filesystem::path& path, ConnectError& why, std::string& error) {
    sockaddr_un address{};
    if (!socketAddress(path, address, error)) {
        why = ConnectError::Failed;
        return {};
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        why = ConnectError::Failed;
        error = errnoText(errno);
        return {};
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int e = errno;
        error = errnoText(e);
        why = e == ENOENT || e == ECONNREFUSED ? ConnectError::NoListener
              : e == EACCES || e == EPERM      ? ConnectError::Denied
                                               : ConnectError::Failed;
        return {};
    }
    why = ConnectError::None;
    return LocalStream(std::move(fd));
}

LocalListener::~LocalListener() {
    if (fd_) {
        std::error_code ec;
        std::filesystem::remove(path_, ec);
    }
}

bool LocalListener::listen(const std::filesystem::path& path, std::string& error) {
    sockaddr_un address{};
    if (!socketAddress(path, address, error)) {
        return false;
    }
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            error = path.string() + " exists and is not a socket";
            return false;
        }
        ::unlink(path.c_str());
    }
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        error = errnoText(errno);
        return false;
    }
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "bind " + path.string() + ": " + errnoText(errno);
        return false;
    }
    // Nobody can connect before listen, so the mode is narrowed in time
    // whatever the process's umask.
    path_ = path;
    if (::chmod(path.c_str(), 0600) != 0 || ::listen(fd.get(), 8) != 0) {
        error = path.string() + ": " + errnoText(errno);
        ::unlink(path.c_str());
        return false;
    }
    fd_ = std::move(fd);
    return true;
}

IoResult LocalListener::accept(LocalStream& out, const StopSignal& stop, std::string& error) {
    return acceptOn(fd_.get(), out, stop, error);
}

bool LoopbackListener::listen(std::uint16_t port, std::string& error) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        error = errnoText(errno);
        return false;
    }
    const int one = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 8) != 0) {
        error = "127.0.0.1:" + std::to_string(port) + ": " + errnoText(errno);
        return false;
    }
    socklen_t length = sizeof address;
    if (::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        error = errnoText(errno);
        return false;
    }
    port_ = ntohs(address.sin_port);
    fd_ = std::move(fd);
    return true;
}

IoResult LoopbackListener::accept(LocalStream& out, const StopSignal& stop, std::string& error) {
    return acceptOn(fd_.get(), out, stop, error);
}

}  // namespace ndpx::platform
