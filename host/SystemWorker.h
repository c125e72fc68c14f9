#pragma once
// The host's built-in worker "System": unloads plug-ins on request and
// writes agent events to the system journal.

#include <mfw/MessageFrameWork.h>
#include <mfw/PluginLoader.h>

namespace ndpx::host {

// Registers "System"; `loader` must outlive the worker.
void addSystemWorker(CORE::PluginLoader& loader);

// Writes one event entry to the journal (stderr when the journal is absent).
bool writeEvent(const CORE::PropertyBag& event);

}  // namespace ndpx::host
