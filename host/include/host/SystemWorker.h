#pragma once
// The host's built-in worker "System": unloads plug-ins on request, writes
// agent events to the system journal and the host log, and passes a module's
// request for a system reboot on (or only logs it).

#include "host/EventWriter.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/PluginLoader.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace ndpx::host {

// What "RequestSystemReboot" does: `Log` only logs it (the default whenever
// the host runs under a root other than "/", as tests and demos do),
// `System` asks the system through `request`.
struct RebootPolicy {
    enum class Mode { Log, System };
    Mode mode = Mode::Log;
    std::function<bool(std::string& error)> request;

    static Mode defaultMode(const std::filesystem::path& root);
};

// Registers "System" for its lifetime; `loader` and `events` must outlive it.
class SystemWorker {
public:
    SystemWorker(CORE::PluginLoader& loader, EventWriter& events, RebootPolicy reboot = {});
    ~SystemWorker();
    SystemWorker(const SystemWorker&) = delete;
    SystemWorker& operator=(const SystemWorker&) = delete;

private:
    CORE::PluginLoader& loader_;
    EventWriter& events_;
    const RebootPolicy reboot_;
    static std::unique_ptr<CORE::WorkItem> makeOperation(void* self);
};

}  // namespace ndpx::host
