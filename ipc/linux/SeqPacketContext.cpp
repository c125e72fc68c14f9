// The Linux backend's entry point: a context that makes SOCK_SEQPACKET
// listeners at "<socketDir>/<endpointGuid>.sock".

#include "IpcLog.h"
#include "SeqPacketListener.h"
#include "SocketEndpoint.h"

#include <ipc/IpcTransport.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace ndpx::ipc {
namespace {

using seqpacket::writeLog;
using seqpacket::level::kError;

// A name that is one file name: "{1CA68F57-44E0-4475-8065-A32557C79A56}".
bool validEndpointName(const std::string& name) {
    constexpr std::size_t kMaxLength = 64;
    return !name.empty() && name.size() <= kMaxLength && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '{' || c == '}' ||
                      c == '-' || c == '_' || c == '.';
           });
}

bool validLimits(const IpcLimits& limits) {
    return limits.maxMessageBytes > 0 && limits.maxStreams > 0 && limits.maxQueuedSends > 0 &&
           limits.maxQueuedBytes > 0 && limits.maxReceivesPerSecond > 0;
}

class SeqPacketContext final : public IpcContext {
public:
    SeqPacketContext(IpcLogSink log, IpcOptions options)
        : log_(std::move(log)), options_(std::move(options)) {}

    int listen(const std::string& endpointGuid, ListenerCallbacks callbacks,
               std::shared_ptr<IpcListener>& out) override {
        if (!validEndpointName(endpointGuid)) {
            writeLog(log_, kError, "SeqPacketContext::listen",
                     "not an endpoint name: \"" + endpointGuid + "\"");
            return status::kInvalid;
        }
        if (!callbacks.connectRequest || !callbacks.connectAccepted || !callbacks.received) {
            writeLog(log_, kError, "SeqPacketContext::listen", "every callback is needed");
            return status::kInvalid;
        }
        seqpacket::SocketEndpoint endpoint;
        if (const int rc = seqpacket::SocketEndpoint::open(options_.socketDir,
                                                           endpointGuid + ".sock", log_, endpoint);
            rc != status::kOk) {
            return rc;
        }
        auto listener = std::make_shared<seqpacket::SeqPacketListener>(
            std::move(endpoint), std::move(callbacks), options_.limits, log_);
        if (const int rc = listener->start(); rc != status::kOk) {
            return rc;
        }
        out = std::move(listener);
        return status::kOk;
    }

private:
    const IpcLogSink log_;
    const IpcOptions options_;
};

}  // namespace

int initialiseIpc(IpcLogSink sink, const IpcOptions& options, std::shared_ptr<IpcContext>& out) {
    if (options.socketDir.empty() || !validLimits(options.limits)) {
        writeLog(sink, kError, "initialiseIpc",
                 options.socketDir.empty() ? "no socket folder" : "a limit of 0");
        return status::kInvalid;
    }
    out = std::make_shared<SeqPacketContext>(std::move(sink), options);
    return status::kOk;
}

}  // namespace ndpx::ipc
