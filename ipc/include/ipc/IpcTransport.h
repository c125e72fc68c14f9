#pragma once
// The local IPC channel the bridge runs on, as a seam: a context made with a
// log sink, a listener on an endpoint with four events, and streams to the
// connected processes with their process ID, a name, asynchronous sends and
// a close that waits. One message per send, received whole, in order. The
// Linux backend (ipc/linux) uses AF_UNIX SOCK_SEQPACKET sockets; another
// system's backend implements the same interfaces.

#include <platform/LocalSocket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::ipc {

// Status codes of the transport's calls: 0 is success.
namespace status {
inline constexpr int kOk = 0;
inline constexpr int kFailed = 1;     // the system refused (see the log)
inline constexpr int kClosed = 2;     // the stream or listener is closed
inline constexpr int kTooLarge = 3;   // a message above the size limit
inline constexpr int kQueueFull = 4;  // the peer does not read fast enough
inline constexpr int kInvalid = 5;    // bad arguments (empty endpoint, ...)
}  // namespace status

// The bounds that keep one process from costing the agent (or the others)
// more than its share.
struct IpcLimits {
    // Largest message either way; a larger one is refused (send) or ends
    // the stream (receive), each with a log line.
    std::size_t maxMessageBytes = std::size_t{256} * 1024;
    // Connected processes at once; more are refused at connect.
    std::size_t maxStreams = 32;
    // Sends queued for one stream and not yet taken by its process; past
    // either bound sendAsync answers kQueueFull.
    std::size_t maxQueuedSends = 256;
    std::size_t maxQueuedBytes = std::size_t{4} * 1024 * 1024;
    // Messages taken from one process per second; past it the stream is not
    // read for the rest of the second, so the sender is slowed by its own
    // socket buffer, not the agent.
    std::size_t maxReceivesPerSecond = 500;
};

class IpcStream {
public:
    virtual ~IpcStream() = default;

    // The connecting process as the kernel recorded it at connect time.
    virtual std::uint32_t peerProcessId() const = 0;
    virtual std::optional<platform::PeerCredentials> peerCredentials() const = 0;
    // False once the peer closed its end (or the stream was closed).
    virtual bool peerConnected() const = 0;
    // Printable, for log lines ("ipc-stream-7 (pid 1234)").
    virtual std::string name() const = 0;

    // Queues one message. kOk: `done` runs later, once, on a transport
    // thread, with true when the whole message was handed to the peer's
    // socket and false when the stream closed first. Any other status: the
    // message was refused and `done` never runs.
    using Completion = std::function<void(bool delivered)>;
    virtual int sendAsync(std::vector<std::uint8_t> message, Completion done) = 0;

    // Closes the stream, waiting up to `timeout` for queued sends to go;
    // what is still queued then completes as not delivered. No receive or
    // close event follows for this stream.
    virtual void close(std::chrono::milliseconds timeout) = 0;
};
using IpcStreamPtr = std::shared_ptr<IpcStream>;

// A received message; status 0 means the stream is closing (the peer
// closed, or sent what the limits refuse) and carries no data.
struct IpcMessage {
    int status = 1;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};

// The listener's events. They run on one dispatch thread of the transport,
// never on its I/O thread, one at a time and in order per stream; they may
// block briefly (a publish) without stalling other streams' I/O.
struct ListenerCallbacks {
    // Decides admission; false closes the connection at once.
    std::function<bool(const IpcStreamPtr&)> connectRequest;
    std::function<void(const IpcStreamPtr&)> connectAccepted;
    // Every message of an admitted stream, then one with status 0 when it
    // closes. The data is valid only during the call.
    std::function<void(const IpcStreamPtr&, const IpcMessage&)> received;
};

class IpcListener {
public:
    virtual ~IpcListener() = default;
    // Begins accepting connections.
    virtual int setAccepting() = 0;
    // Stops accepting, closes every stream (no further events) and joins
    // the transport's threads. Safe to call twice.
    virtual int close() = 0;
};

// A log record of the transport; levels as the host library numbers them:
// 2 error, 3 warning, 4 information, 5 debug, 6 trace.
struct IpcLogRecord {
    int level = 4;
    std::string function;  // may be empty
    std::string message;
};
using IpcLogSink = std::function<void(const IpcLogRecord&)>;

class IpcContext {
public:
    virtual ~IpcContext() = default;
    // Listens on the endpoint named by `endpointGuid`
    // ("{1CA68F57-44E0-4475-8065-A32557C79A56}").
    virtual int listen(const std::string& endpointGuid, ListenerCallbacks callbacks,
                       std::shared_ptr<IpcListener>& out) = 0;
};

// The Linux backend: endpoints are sockets "<dir>/<guid>.sock". The folder
// is made 0755 and the socket 0666, both set explicitly whatever the umask:
// any local process may connect (admission is the include list's job), and
// only the folder's owner can replace the socket.
struct IpcOptions {
    std::filesystem::path socketDir;  // e.g. <root>/run/Brasswick/ipc
    IpcLimits limits;
};
int initialiseIpc(IpcLogSink sink, const IpcOptions& options, std::shared_ptr<IpcContext>& out);

}  // namespace ndpx::ipc
