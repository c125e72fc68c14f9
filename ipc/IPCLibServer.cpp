#include "ipc/IPCLibServer.h"

#include <mfw/log.h>
#include <mfw/moduleLog.h>

#include <chrono>

namespace ndpx {
namespace {

// A closing stream's peer is gone or broke the limits: what is still queued
// for it gets this long, so one process never holds the transport's thread.
constexpr std::chrono::seconds kCloseTimeout{2};

}  // namespace

IPCLibServer::IPCLibServer(ContextFactory factory) : factory_(std::move(factory)) {}

IPCLibServer::~IPCLibServer() {
    UnInit();
}

int IPCLibServer::hostLevel(int libraryLevel) {
    switch (libraryLevel) {
        case 2:
            return CORE::kLogError;
        case 3:
            return CORE::kLogWarning;
        case 4:
            return CORE::kLogInfo;
        case 6:
            return CORE::kLogVerbose;
        default:
            return CORE::kLogDebug;
    }
}

int IPCLibServer::StartServer(const std::string& endpointGuid, Callbacks handlers) {
    {
        CORE::MutexLock lock(callbacksLock_);
        callbacks_ = std::move(handlers);
    }
    if (!context_) {
        // The log bridge: records keep their function name, as host lines do.
        ipc::IpcLogSink sink = [](const ipc::IpcLogRecord& r) {
            if (r.function.empty()) {
                MFW_LOG(hostLevel(r.level), "%s", r.message.c_str());
            } else {
                MFW_LOG(hostLevel(r.level), "%s(): %s", r.function.c_str(), r.message.c_str());
            }
        };
        const int status = factory_ ? factory_(std::move(sink), context_) : ipc::status::kFailed;
        if (status != ipc::status::kOk || !context_) {
            MFW_LOG(CORE::kLogError,
                    "IPCLibServer::StartServer(): Failed to initialize LmIpclib, status: %d.",
                    status);
            context_.reset();
            return status != ipc::status::kOk ? status : ipc::status::kFailed;
        }
    }
    ipc::ListenerCallbacks events;
    events.connectRequest = [this](const ipc::IpcStreamPtr& stream) {
        const auto cb = callbacks();
        return cb.connectRequest && cb.connectRequest(stream);
    };
    events.connectAccepted = [this](const ipc::IpcStreamPtr& stream) {
        if (const auto cb = callbacks(); cb.connectAccepted) {
            cb.connectAccepted(stream);
        }
    };
    events.received = [this](const ipc::IpcStreamPtr& stream, const ipc::IpcMessage& message) {
        OnReceiveCallback(stream, message);
    };
    std::shared_ptr<ipc::IpcListener> listener;
    int status = context_->listen(endpointGuid, std::move(events), listener);
    if (status != ipc::status::kOk || !listener) {
        MFW_LOG(CORE::kLogError,
                "IPCLibServer::StartServer(): Failed to listen on an endpoint, status: %d.",
                status);
        return status != ipc::status::kOk ? status : ipc::status::kFailed;
    }
    status = listener->setAccepting();
    if (status != ipc::status::kOk) {
        MFW_LOG(CORE::kLogError,
                "IPCLibServer::StartServer(): Failed to set the listener as accepting, status: %d.",
                status);
        listener->close();
        return status;
    }
    listener_ = std::move(listener);
    MFW_LOG(CORE::kLogDebug,
            "IPCLibServer::StartServer(): Successfully started listening for messages...");
    return ipc::status::kOk;
}

void IPCLibServer::UnInit() {
    if (listener_ && listener_->close() != ipc::status::kOk) {
        MFW_LOG(CORE::kLogError, "IPCLibServer::UnInit(): Failed to close listener.");
    }
    listener_.reset();
    context_.reset();
}

IPCLibServer::Callbacks IPCLibServer::callbacks() const {
    CORE::MutexLock lock(callbacksLock_);
    return callbacks_;
}

void IPCLibServer::OnReceiveCallback(const ipc::IpcStreamPtr& stream,
                                     const ipc::IpcMessage& message) {
    const Callbacks cb = callbacks();
    if (message.status != 0) {
        if (message.data == nullptr) {
            MFW_LOG(CORE::kLogError, "IPCLibServer::OnReceiveCallback(): Buffer is NULL");
        } else if (cb.receive) {
            cb.receive(stream, message);
        }
        return;
    }
    MFW_LOG(CORE::kLogDebug, "IPCLibServer::OnReceiveCallback(): Stream is closing: %s.",
            stream->name().c_str());
    if (cb.beforeClose) {
        cb.beforeClose(stream);
    }
    stream->close(kCloseTimeout);
}

}  // namespace ndpx
