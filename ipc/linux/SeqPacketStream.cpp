#include "SeqPacketStream.h"

#include "IpcLog.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace ndpx::ipc::seqpacket {
namespace {

// Messages read from one stream in a turn of the I/O thread, so that a busy
// stream does not hold up the others.
constexpr int kReadsPerTurn = 32;

std::atomic<std::uint64_t> nextStreamNumber{1};

std::string streamName(std::uint32_t pid) {
    return "ipc-stream-" + std::to_string(nextStreamNumber.fetch_add(1)) + " (pid " +
           std::to_string(pid) + ")";
}

// The errors of a send to a peer that has closed its end.
bool peerGone(int error) {
    return error == EPIPE || error == ECONNRESET || error == ENOTCONN;
}

}  // namespace

SeqPacketStream::SeqPacketStream(platform::UniqueFd fd,
                                 std::optional<platform::PeerCredentials> credentials,
                                 std::shared_ptr<const Shared> shared)
    : shared_(std::move(shared)),
      credentials_(credentials),
      pid_(credentials ? static_cast<std::uint32_t>(credentials->pid) : 0),
      name_(streamName(pid_)),
      fd_(std::move(fd)),
      rate_(shared_->limits.maxReceivesPerSecond) {}

void SeqPacketStream::log(int level, const char* function, std::string message) const {
    writeLog(shared_->log, level, function, std::move(message));
}

template <typename Event>
bool SeqPacketStream::runEvent(const Event& event) {
    if (!gate_.enter()) {
        return false;
    }
    struct Leave {
        CallbackGate& gate;
        ~Leave() { gate.leave(); }
    } leave{gate_};
    event();
    return true;
}

bool SeqPacketStream::peerConnected() const {
    const std::lock_guard lock(mutex_);
    if (!fd_ || writeBroken_) {
        return false;
    }
    pollfd entry{fd_.get(), POLLRDHUP, 0};
    if (::poll(&entry, 1, 0) < 0) {
        return true;  // cannot tell; the I/O thread will see a close
    }
    return (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
}

int SeqPacketStream::sendAsync(std::vector<std::uint8_t> message, Completion done) {
    const IpcLimits& limits = shared_->limits;
    // A peer reads an empty message as the end of the stream.
    if (message.empty()) {
        return status::kInvalid;
    }
    if (message.size() > limits.maxMessageBytes) {
        log(level::kWarning, "SeqPacketStream::sendAsync",
            "refusing a message of " + std::to_string(message.size()) + " bytes for " + name_ +
                ": above the limit of " + std::to_string(limits.maxMessageBytes));
        return status::kTooLarge;
    }
    bool firstQueued = false;
    bool full = false;
    bool episodeBegins = false;
    std::size_t queued = 0;
    {
        const std::lock_guard lock(mutex_);
        if (closed_ || writeBroken_) {
            return status::kClosed;
        }
        full =
            sends_.size() >= limits.maxQueuedSends ||
            message.size() > limits.maxQueuedBytes - std::min(queuedBytes_, limits.maxQueuedBytes);
        if (full) {
            episodeBegins = !queueFull_;
            queueFull_ = true;
            queued = sends_.size();
        } else {
            queueFull_ = false;
            firstQueued = sends_.empty();
            queuedBytes_ += message.size();
            sends_.push_back(PendingSend{std::move(message), std::move(done)});
        }
    }
    if (full) {
        if (episodeBegins) {
            log(level::kWarning, "SeqPacketStream::sendAsync",
                name_ + " does not read fast enough: " + std::to_string(queued) +
                    " sends queued; refusing more until it does");
        }
        return status::kQueueFull;
    }
    if (firstQueued) {
        shared_->waker->wake();
    }
    return status::kOk;
}

void SeqPacketStream::close(std::chrono::milliseconds timeout) {
    Completions dropped;
    bool closedHere = false;
    {
        std::unique_lock lock(mutex_);
        if (!closed_ && timeout.count() > 0) {
            drained_.wait_for(lock, timeout,
                              [this] { return closed_ || writeBroken_ || sends_.empty(); });
        }
        if (!closed_) {
            closed_ = true;
            closedHere = true;
            fd_.reset();
            dropped = takeSendsLocked();
        }
    }
    drained_.notify_all();
    gate_.shut(!shared_->dispatch->onDispatchThread());
    if (closedHere) {
        log(level::kDebug, "SeqPacketStream::close",
            name_ + " closed by the agent; " + std::to_string(dropped.size()) +
                " queued sends not delivered");
        shared_->waker->wake();
    }
    complete(std::move(dropped), false);
}

bool SeqPacketStream::closeNow() {
    Completions dropped;
    {
        const std::lock_guard lock(mutex_);
        if (closed_) {
            return false;
        }
        closed_ = true;
        fd_.reset();
        dropped = takeSendsLocked();
    }
    drained_.notify_all();
    complete(std::move(dropped), false);
    return true;
}

void SeqPacketStream::closeForListener() {
    closeNow();
}

void SeqPacketStream::shutEvents() {
    gate_.shut(!shared_->dispatch->onDispatchThread());
}

void SeqPacketStream::queueAdmission() {
    shared_->dispatch->post([self = shared_from_this()] { self->admit(); });
}

void SeqPacketStream::admit() {
    const ListenerCallbacks& callbacks = shared_->callbacks;
    const std::shared_ptr<IpcStream> self = shared_from_this();
    bool admitted = false;
    if (!runEvent([&] { admitted = callbacks.connectRequest(self); })) {
        return;
    }
    if (!admitted) {
        log(level::kInformation, "SeqPacketStream::admit", name_ + " was not admitted");
        close(std::chrono::milliseconds(0));
        return;
    }
    admitted_ = true;
    shared_->waker->wake();
    runEvent([&] { callbacks.connectAccepted(self); });
}

bool SeqPacketStream::pollEntry(bool dispatchHasRoom, Clock::time_point now, pollfd& entry,
                                Clock::time_point& wakeAt) {
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return false;
    }
    short events = 0;
    if (admitted_ && dispatchHasRoom) {
        if (rate_.mayTake(now)) {
            events |= POLLIN | POLLRDHUP;
        } else {
            wakeAt = std::min(wakeAt, rate_.resumesAt());
        }
    }
    if (!writeBroken_ && !sends_.empty()) {
        events |= POLLOUT;
    }
    // Nothing asked, nothing polled: a hung-up socket would report POLLHUP
    // at every turn.
    entry = pollfd{events != 0 ? fd_.get() : -1, events, 0};
    return true;
}

void SeqPacketStream::onReady(const pollfd& entry, Clock::time_point now,
                              std::vector<std::uint8_t>& buffer) {
    const short failed = POLLERR | POLLHUP;
    if ((entry.events & POLLOUT) != 0 && (entry.revents & (POLLOUT | failed)) != 0) {
        writeSome();
    }
    if ((entry.events & POLLIN) != 0 && (entry.revents & (POLLIN | POLLRDHUP | failed)) != 0) {
        readSome(now, buffer);
    }
}

void SeqPacketStream::readSome(Clock::time_point now, std::vector<std::uint8_t>& buffer) {
    const std::size_t limit = shared_->limits.maxMessageBytes;
    for (int turn = 0; turn < kReadsPerTurn; ++turn) {
        if (!shared_->dispatch->hasRoom()) {
            return;
        }
        if (!rate_.mayTake(now)) {
            noteSlowed();
            return;
        }
        ssize_t n = 0;
        int error = 0;
        {
            const std::lock_guard lock(mutex_);
            if (!fd_) {
                return;
            }
            // MSG_TRUNC: the size of a message too large for the buffer.
            n = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
            error = errno;
        }
        if (n < 0) {
            if (error == EAGAIN || error == EWOULDBLOCK) {
                return;
            }
            if (error == EINTR || error == ECONNRESET) {
                // A peer that closed with our messages unread: Linux reports
                // that once, before what it sent is read.
                continue;
            }
            log(level::kError, "SeqPacketStream::receive", name_ + ": " + errnoText(error));
            finish();
            return;
        }
        if (n == 0) {
            log(level::kDebug, "SeqPacketStream::receive", name_ + " closed by its process");
            finish();
            return;
        }
        const auto size = static_cast<std::size_t>(n);
        if (size > limit) {
            log(level::kWarning, "SeqPacketStream::receive",
                "message of " + std::to_string(size) + " bytes from pid " + std::to_string(pid_) +
                    " is above the limit of " + std::to_string(limit) + "; closing " + name_);
            finish();
            return;
        }
        rate_.took();
        postMessage(std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + n));
    }
}

void SeqPacketStream::noteSlowed() {
    ssize_t waiting = 0;
    {
        const std::lock_guard lock(mutex_);
        if (!fd_) {
            return;
        }
        std::uint8_t byte = 0;
        waiting = ::recv(fd_.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK | MSG_TRUNC);
    }
    if (waiting > 0 && rate_.slow()) {
        log(level::kWarning, "SeqPacketStream::receive",
            "pid " + std::to_string(pid_) + " sends faster than " +
                std::to_string(shared_->limits.maxReceivesPerSecond) +
                " messages a second; slowed");
    }
}

void SeqPacketStream::writeSome() {
    Completions sent;
    Completions tooLarge;
    Completions dropped;
    int error = 0;
    bool drained = false;
    {
        const std::lock_guard lock(mutex_);
        while (fd_ && !writeBroken_ && !sends_.empty()) {
            PendingSend& next = sends_.front();
            // One message a send: SEQPACKET takes it whole or not at all.
            const ssize_t n = ::send(fd_.get(), next.message.data(), next.message.size(),
                                     MSG_DONTWAIT | MSG_NOSIGNAL);
            const int sendError = n < 0 ? errno : 0;
            if (sendError == EINTR) {
                continue;
            }
            if (sendError == EAGAIN || sendError == EWOULDBLOCK) {
                break;
            }
            if (sendError != 0 && sendError != EMSGSIZE) {
                error = sendError;
                writeBroken_ = true;
                dropped = takeSendsLocked();
                break;
            }
            (sendError == 0 ? sent : tooLarge).push_back(std::move(next.done));
            queuedBytes_ -= next.message.size();
            sends_.pop_front();
        }
        drained = sends_.empty();
    }
    if (drained) {
        drained_.notify_all();
    }
    if (!tooLarge.empty()) {
        log(level::kError, "SeqPacketStream::send",
            std::to_string(tooLarge.size()) + " messages for " + name_ +
                " are above the socket's send buffer (see net.core.wmem_max); not delivered");
    }
    if (error != 0) {
        log(peerGone(error) ? level::kDebug : level::kError, "SeqPacketStream::send",
            name_ + ": " + errnoText(error) + "; " + std::to_string(dropped.size()) +
                " queued sends not delivered");
    }
    complete(std::move(sent), true);
    complete(std::move(tooLarge), false);
    complete(std::move(dropped), false);
}

void SeqPacketStream::finish() {
    if (closeNow()) {
        postCloseEvent();
    }
}

SeqPacketStream::Completions SeqPacketStream::takeSendsLocked() {
    Completions completions;
    completions.reserve(sends_.size());
    for (auto& send : sends_) {
        completions.push_back(std::move(send.done));
    }
    sends_.clear();
    queuedBytes_ = 0;
    return completions;
}

void SeqPacketStream::complete(Completions completions, bool delivered) {
    if (completions.empty()) {
        return;
    }
    shared_->dispatch->post([completions = std::move(completions), delivered] {
        for (const auto& done : completions) {
            if (done) {
                done(delivered);
            }
        }
    });
}

void SeqPacketStream::postMessage(std::vector<std::uint8_t> data) {
    const std::size_t bytes = data.size();
    shared_->dispatch->post(
        [self = shared_from_this(), data = std::move(data)] {
            self->runEvent([&] {
                IpcMessage message;  // a status other than 0: data
                message.data = data.data();
                message.size = data.size();
                self->shared_->callbacks.received(self, message);
            });
        },
        bytes);
}

void SeqPacketStream::postCloseEvent() {
    shared_->dispatch->post([self = shared_from_this()] {
        self->runEvent([&] {
            IpcMessage message;
            message.status = 0;
            self->shared_->callbacks.received(self, message);
        });
    });
}

}  // namespace ndpx::ipc::seqpacket
