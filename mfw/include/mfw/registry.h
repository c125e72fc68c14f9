#pragma once
// The process's settings store ("registry"), opened on first use at the path
// the root mapping gives. Tests may put their own store in its place.

#include <platform/SettingsStore.h>

#include <memory>

namespace CORE {

// The process-wide store. Never fails: if the database cannot be opened the
// error is logged and an in-memory store that keeps nothing is returned.
ndpx::platform::SettingsStore& registry();
// The same store, shared: for objects that keep it beyond one call.
std::shared_ptr<ndpx::platform::SettingsStore> registryShared();

// Replaces the process store (nullptr: reopen from the root mapping on next use).
void setRegistry(std::shared_ptr<ndpx::platform::SettingsStore> store);

}  // namespace CORE
