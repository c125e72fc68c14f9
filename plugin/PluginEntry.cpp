// The module's exported entry points and its one plug-in object.

#include "plugin/MQTTPlugin.h"

#include <mfw/PluginAbi.h>

namespace {
ndpx::MQTTPlugin thePlugin;
}

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
