#pragma once
// The host's built-in worker "System": unloads plug-ins on request and
// writes agent events to the system journal and the host log.

#include "host/EventWriter.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/PluginLoader.h>

#include <memory>

namespace ndpx::host {

// Registers "System" for its lifetime; `loader` and `events` must outlive it.
class SystemWorker {
public:
    SystemWorker(CORE::PluginLoader& loader, EventWriter& events);
    ~SystemWorker();
    SystemWorker(const SystemWorker&) = delete;
    SystemWorker& operator=(const SystemWorker&) = delete;

private:
    CORE::PluginLoader& loader_;
    EventWriter& events_;
    static std::unique_ptr<CORE::WorkItem> makeOperation(void* self);
};

}  // namespace ndpx::host
