// This system's IPC transport: sockets in the agent's run folder.

#include "ipc/IPCLibServer.h"

#include <platform/Paths.h>

namespace ndpx {

IPCLibServer::ContextFactory defaultIpcTransport() {
    return [](ipc::IpcLogSink sink, std::shared_ptr<ipc::IpcContext>& out) {
        ipc::IpcOptions options;
        options.socketDir = platform::paths::runDir() / "ipc";
        return ipc::initialiseIpc(std::move(sink), options, out);
    };
}

}  // namespace ndpx
