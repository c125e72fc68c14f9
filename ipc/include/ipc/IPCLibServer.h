#pragma once
// The bridge's side of the local IPC transport: listens on the bridge's
// endpoint, hands the transport's events to the IPC manager, and writes the
// transport's log records into the host log.

#include "ipc/IpcTransport.h"

#include <mfw/corelock.h>

#include <functional>
#include <memory>
#include <string>

namespace ndpx {

// The bridge's endpoint; local clients connect to it.
inline constexpr const char* kIpcEndpointGuid = "{1CA68F57-44E0-4475-8065-A32557C79A56}";

class IPCLibServer {
public:
    // Makes the transport's context with the given log sink; a status.
    using ContextFactory = std::function<int(ipc::IpcLogSink, std::shared_ptr<ipc::IpcContext>&)>;
    struct Callbacks {
        std::function<bool(const ipc::IpcStreamPtr&)> connectRequest;
        std::function<void(const ipc::IpcStreamPtr&)> connectAccepted;
        std::function<void(const ipc::IpcStreamPtr&, const ipc::IpcMessage&)> receive;
        std::function<void(const ipc::IpcStreamPtr&)> beforeClose;
    };

    explicit IPCLibServer(ContextFactory factory);
    ~IPCLibServer();
    IPCLibServer(const IPCLibServer&) = delete;
    IPCLibServer& operator=(const IPCLibServer&) = delete;

    // 0 when listening; else the transport's status.
    int StartServer(const std::string& endpointGuid, Callbacks handlers)
        MFW_EXCLUDES(callbacksLock_);
    // Closes the listener (and with it every stream) and releases the
    // transport.
    void UnInit();

    // The host level of a transport log record's level.
    static int hostLevel(int libraryLevel);

private:
    void OnReceiveCallback(const ipc::IpcStreamPtr& stream, const ipc::IpcMessage& message)
        MFW_EXCLUDES(callbacksLock_);
    Callbacks callbacks() const MFW_EXCLUDES(callbacksLock_);

    const ContextFactory factory_;
    std::shared_ptr<ipc::IpcContext> context_;
    std::shared_ptr<ipc::IpcListener> listener_;
    mutable CORE::Mutex callbacksLock_;
    Callbacks callbacks_ MFW_GUARDED_BY(callbacksLock_);
};

// This system's transport, with its endpoint folder under the agent's root.
IPCLibServer::ContextFactory defaultIpcTransport();

}  // namespace ndpx
