#pragma once
// A listener on one endpoint: its I/O thread polls the stop signal, the
// wake-up of the streams, the listening socket and every stream's socket
// (all non-blocking); it accepts, reads and writes, and queues every event
// for the dispatch thread, which runs the callbacks. It never runs a
// callback nor waits for one: when the dispatch queue is full it stops
// reading until there is room.

#include "SeqPacketStream.h"
#include "SocketEndpoint.h"

#include <ipc/IpcTransport.h>
#include <platform/LocalSocket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace ndpx::ipc::seqpacket {

class SeqPacketListener final : public IpcListener {
public:
    SeqPacketListener(SocketEndpoint endpoint, ListenerCallbacks callbacks, const IpcLimits& limits,
                      IpcLogSink log);
    ~SeqPacketListener() override;
    SeqPacketListener(const SeqPacketListener&) = delete;
    SeqPacketListener& operator=(const SeqPacketListener&) = delete;

    // Starts both threads: status::kOk, or kFailed with a log record.
    int start();

    int setAccepting() override;
    int close() override;

private:
    using Clock = std::chrono::steady_clock;

    void runIo();
    void acceptAll(Clock::time_point now);

    SocketEndpoint endpoint_;
    std::shared_ptr<SeqPacketStream::Shared> shared_;
    platform::StopSignal stop_;
    std::atomic<bool> accepting_{false};
    std::atomic<bool> closed_{false};
    std::thread io_;

    // The I/O thread's, and close()'s once it has joined that thread.
    std::vector<std::shared_ptr<SeqPacketStream>> streams_;
    std::vector<std::uint8_t> buffer_;
    Clock::time_point acceptPausedUntil_;
};

}  // namespace ndpx::ipc::seqpacket
