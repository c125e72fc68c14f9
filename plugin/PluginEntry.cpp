// The module's exported entry points and its one plug-in object.

#include "plugin/MQTTPlugin.h"

#include <mfw/PluginAbi.h>

namespace {
// Made as the host loads the module; only running out of memory could make
// it throw, which no code of ours could handle that early.
ndpx::MQTTPlugin thePlugin;  // NOLINT(cert-err58-cpp)
}  // namespace

extern "C" {

__attribute__((visibility("default"))) int PluginInit(void* host, void* a, void* b, void* c) {
    return CORE::mfwPluginDll::onPluginInit(host, a, b, c);
}

__attribute__((visibility("default"))) bool PluginParams(CORE::PropertyBag* params) {
    return CORE::mfwPluginDll::onPluginParams(params);
}

__attribute__((visibility("default"))) void PluginExit() {
    CORE::mfwPluginDll::onPluginExit();
}
}
