#include "SeqPacketListener.h"

#include "IpcLog.h"

#include <platform/Threads.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

namespace ndpx::ipc::seqpacket {
namespace {

// What the I/O thread may hold back in the dispatch queue before it stops
// reading.
constexpr DispatchQueue::Bounds kDispatchBounds{256, std::size_t{8} * 1024 * 1024};
// How long accepting pauses when the system refuses to (out of descriptors).
constexpr auto kAcceptPause = std::chrono::seconds(1);
// Kept free in a socket's send buffer above the largest message.
constexpr std::size_t kSendBufferSlack = 4096;

std::optional<platform::PeerCredentials> peerCredentialsOf(int fd) {
    ucred cred{};
    socklen_t size = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 || size != sizeof cred) {
        return std::nullopt;
    }
    return platform::PeerCredentials{cred.uid, cred.gid, cred.pid};
}

// Linux refuses to send a message larger than the socket's send buffer, so
// the buffer is made to hold the largest (as far as net.core.wmem_max lets
// it; the kernel doubles what is asked).
void fitSendBuffer(int fd, std::size_t maxMessageBytes) {
    const auto wanted =
        static_cast<int>(std::min<std::size_t>(maxMessageBytes + kSendBufferSlack, INT_MAX / 2));
    int current = 0;
    socklen_t size = sizeof current;
    if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &current, &size) == 0 && current >= wanted) {
        return;
    }
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);
}

}  // namespace

SeqPacketListener::SeqPacketListener(SocketEndpoint endpoint, ListenerCallbacks callbacks,
                                     const IpcLimits& limits, IpcLogSink log)
    : endpoint_(std::move(endpoint)),
      shared_(std::make_shared<SeqPacketStream::Shared>()),
      buffer_(limits.maxMessageBytes + 1) {
    shared_->limits = limits;
    shared_->log = std::move(log);
    shared_->callbacks = std::move(callbacks);
    shared_->waker = std::make_shared<IoWaker>();
    shared_->dispatch = std::make_shared<DispatchQueue>(
        kDispatchBounds, shared_->log, [waker = shared_->waker] { waker->wake(); });
}

SeqPacketListener::~SeqPacketListener() {
    close();
}

int SeqPacketListener::start() {
    constexpr const char* kFunction = "SeqPacketListener::start";
    if (!shared_->waker->valid() || stop_.waitHandle() < 0) {
        writeLog(shared_->log, level::kError, kFunction, "eventfd: " + errnoText(errno));
        return status::kFailed;
    }
    if (!shared_->dispatch->start("IpcDispatch")) {
        return status::kFailed;
    }
    try {
        io_ = std::thread([this] {
            platform::setCurrentThreadOsName("IpcIo");
            runIo();
        });
    } catch (const std::system_error& e) {
        writeLog(shared_->log, level::kError, kFunction,
                 std::string("cannot start the I/O thread: ") + e.what());
        return status::kFailed;
    }
    writeLog(shared_->log, level::kInformation, kFunction,
             "listening at " + endpoint_.path().string());
    return status::kOk;
}

int SeqPacketListener::setAccepting() {
    if (closed_) {
        return status::kClosed;
    }
    accepting_ = true;
    shared_->waker->wake();
    return status::kOk;
}

int SeqPacketListener::close() {
    if (closed_.exchange(true)) {
        return status::kOk;
    }
    accepting_ = false;
    stop_.set();
    if (io_.joinable()) {
        io_.join();
    }
    endpoint_.close();
    // Every socket first (which also ends the waits of closing streams),
    // then the events, whose shutting waits for a callback running.
    for (const auto& stream : streams_) {
        stream->closeForListener();
    }
    for (const auto& stream : streams_) {
        stream->shutEvents();
    }
    const auto closedStreams = streams_.size();
    streams_.clear();
    // Runs the completions queued, then ends the dispatch thread.
    shared_->dispatch->stop();
    writeLog(shared_->log, level::kInformation, "SeqPacketListener::close",
             "closed the endpoint and " + std::to_string(closedStreams) + " streams");
    return status::kOk;
}

void SeqPacketListener::runIo() {
    // The first entries: the stop signal, the wake-up, the listening socket.
    constexpr std::size_t kStreamsBegin = 3;
    std::vector<pollfd> entries;
    for (;;) {
        const auto now = Clock::now();
        const bool room = shared_->dispatch->hasRoom();
        auto wakeAt = Clock::time_point::max();
        const bool accepting = accepting_ && now >= acceptPausedUntil_;
        if (accepting_ && !accepting) {
            wakeAt = acceptPausedUntil_;
        }
        entries.clear();
        entries.push_back(pollfd{stop_.waitHandle(), POLLIN, 0});
        entries.push_back(pollfd{shared_->waker->fd(), POLLIN, 0});
        entries.push_back(pollfd{accepting ? endpoint_.fd() : -1, POLLIN, 0});
        // Streams closed since the last turn are dropped here.
        for (auto it = streams_.begin(); it != streams_.end();) {
            pollfd entry{};
            if (!(*it)->pollEntry(room, now, entry, wakeAt)) {
                it = streams_.erase(it);
                continue;
            }
            entries.push_back(entry);
            ++it;
        }

        int timeout = -1;
        if (wakeAt != Clock::time_point::max()) {
            timeout = static_cast<int>(std::clamp<long long>(
                std::chrono::ceil<std::chrono::milliseconds>(wakeAt - now).count(), 0, INT_MAX));
        }
        if (::poll(entries.data(), entries.size(), timeout) < 0) {
            if (errno != EINTR) {
                writeLog(shared_->log, level::kError, "SeqPacketListener::runIo",
                         "poll: " + errnoText(errno));
                stop_.wait(std::chrono::milliseconds(100));
            }
            continue;
        }
        if (entries[0].revents != 0) {
            return;
        }
        if (entries[1].revents != 0) {
            shared_->waker->drain();
        }
        const auto readyAt = Clock::now();
        for (std::size_t i = kStreamsBegin; i < entries.size(); ++i) {
            if (entries[i].revents != 0) {
                streams_[i - kStreamsBegin]->onReady(entries[i], readyAt, buffer_);
            }
        }
        if (entries[2].revents != 0) {
            acceptAll(readyAt);
        }
    }
}

void SeqPacketListener::acceptAll(Clock::time_point now) {
    constexpr const char* kFunction = "SeqPacketListener::accept";
    const IpcLimits& limits = shared_->limits;
    for (;;) {
        platform::UniqueFd fd(
            ::accept4(endpoint_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) {
            const int error = errno;
            if (error == EINTR || error == ECONNABORTED) {
                continue;
            }
            if (error != EAGAIN && error != EWOULDBLOCK) {
                writeLog(shared_->log, level::kError, kFunction,
                         errnoText(error) + "; not accepting for a second");
                acceptPausedUntil_ = now + kAcceptPause;
            }
            return;
        }
        const auto credentials = peerCredentialsOf(fd.get());
        const std::int32_t pid = credentials ? credentials->pid : 0;
        if (streams_.size() >= limits.maxStreams) {
            writeLog(shared_->log, level::kWarning, kFunction,
                     "refusing pid " + std::to_string(pid) + ": " +
                         std::to_string(streams_.size()) + " processes connected, the limit");
            continue;
        }
        if (!credentials) {
            writeLog(shared_->log, level::kWarning, kFunction,
                     "the system does not say which process connected");
        }
        fitSendBuffer(fd.get(), limits.maxMessageBytes);
        auto stream = std::make_shared<SeqPacketStream>(std::move(fd), credentials, shared_);
        writeLog(shared_->log, level::kDebug, kFunction,
                 "accepted " + stream->name() +
                     (credentials ? ", uid " + std::to_string(credentials->uid) : ""));
        streams_.push_back(stream);
        stream->queueAdmission();
    }
}

}  // namespace ndpx::ipc::seqpacket
