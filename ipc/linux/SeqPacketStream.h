#pragma once
// One connected process: its socket, the sends queued for it and the count
// of its receives. The I/O thread reads and writes the socket; any thread
// may queue sends, ask after the peer or close the stream; its events run on
// the dispatch thread through a gate that a close shuts.

#include "CallbackGate.h"
#include "DispatchQueue.h"
#include "IoWaker.h"
#include "ReceiveRate.h"

#include <ipc/IpcTransport.h>
#include <platform/UniqueFd.h>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::ipc::seqpacket {

class SeqPacketStream final : public IpcStream,
                              public std::enable_shared_from_this<SeqPacketStream> {
public:
    using Clock = std::chrono::steady_clock;

    // What the streams of one listener share; it outlives the listener.
    struct Shared {
        IpcLimits limits;
        IpcLogSink log;
        ListenerCallbacks callbacks;
        std::shared_ptr<DispatchQueue> dispatch;
        std::shared_ptr<IoWaker> waker;
    };

    SeqPacketStream(platform::UniqueFd fd, std::optional<platform::PeerCredentials> credentials,
                    std::shared_ptr<const Shared> shared);

    std::uint32_t peerProcessId() const override { return pid_; }
    std::optional<platform::PeerCredentials> peerCredentials() const override {
        return credentials_;
    }
    bool peerConnected() const override;
    std::string name() const override { return name_; }
    int sendAsync(std::vector<std::uint8_t> message, Completion done) override;
    void close(std::chrono::milliseconds timeout) override;

    // Queues connectRequest, then connectAccepted; reading begins between
    // them.
    void queueAdmission();

    // The I/O thread's side. Fills `entry` with what to wait for (fd -1 when
    // nothing) and lowers `wakeAt` to when reading may resume; false once
    // the stream is closed, to be dropped.
    bool pollEntry(bool dispatchHasRoom, Clock::time_point now, pollfd& entry,
                   Clock::time_point& wakeAt);
    // Handles what poll reported for `entry`; `buffer` has room for a
    // message one byte above the limit.
    void onReady(const pollfd& entry, Clock::time_point now, std::vector<std::uint8_t>& buffer);

    // The listener's close, in two steps: closes the socket (queued sends
    // complete as not delivered), then shuts out every further event.
    void closeForListener();
    void shutEvents();

private:
    struct PendingSend {
        std::vector<std::uint8_t> message;
        Completion done;
    };
    using Completions = std::vector<Completion>;

    void readSome(Clock::time_point now, std::vector<std::uint8_t>& buffer);
    void writeSome();
    // Notes (once an episode) a sender held back with messages waiting.
    void noteSlowed();
    // Closes the socket on the I/O thread (the peer's close, a refused
    // message, an error); the status-0 message follows what was received.
    void finish();
    // Closes the socket and fails what is queued; false when already closed.
    bool closeNow();
    // Empties the queue of sends, giving their completions; caller holds
    // mutex_.
    Completions takeSendsLocked();
    // Runs the completions on the dispatch thread.
    void complete(Completions completions, bool delivered);
    void postMessage(std::vector<std::uint8_t> data);
    void postCloseEvent();
    void admit();
    // Runs `event` through the gate; false when it was shut.
    template <typename Event>
    bool runEvent(const Event& event);
    void log(int level, const char* function, std::string message) const;

    const std::shared_ptr<const Shared> shared_;
    const std::optional<platform::PeerCredentials> credentials_;
    const std::uint32_t pid_;
    const std::string name_;

    mutable std::mutex mutex_;
    std::condition_variable drained_;
    platform::UniqueFd fd_;     // reset when closed
    bool closed_ = false;       // our end closed
    bool writeBroken_ = false;  // the peer takes no more
    std::deque<PendingSend> sends_;
    std::size_t queuedBytes_ = 0;
    bool queueFull_ = false;  // a kQueueFull episode was logged

    std::atomic<bool> admitted_{false};
    CallbackGate gate_;
    ReceiveRate rate_;  // the I/O thread's
};

}  // namespace ndpx::ipc::seqpacket
