#include <mfw/corethread.h>
#include <mfw/mfwPluginDll.h>
#include <mfw/moduleLog.h>
#include <platform/SharedLibrary.h>

#include <filesystem>

namespace CORE {
namespace {
mfwPluginDll* g_instance = nullptr;
}

mfwPluginDll::mfwPluginDll() {
    g_instance = this;
    // Module load: the module's own file name becomes its log source name.
    ndpx::platform::LoadedModule self;
    if (ndpx::platform::moduleContaining(reinterpret_cast<const void*>(&mfwPluginDll::instance),
                                         self)) {
        onModuleLoad(self.base, self.path.empty() ? nullptr : self.path.c_str());
    }
}

mfwPluginDll::~mfwPluginDll() {
    if (g_instance == this) {
        g_instance = nullptr;
    }
}

mfwPluginDll* mfwPluginDll::instance() {
    return g_instance;
}

bool mfwPluginDll::pluginInit(void*, void*, void*) {
    return false;
}
bool mfwPluginDll::pluginInitDone() {
    return true;
}
void mfwPluginDll::pluginServiceInstall(void*, void*, void*) {}
void mfwPluginDll::pluginServiceUninstall() {}

PropertyBag mfwPluginDll::params() const {
    std::lock_guard lock(lock_);
    return params_;
}

bool mfwPluginDll::exiting() const {
    std::lock_guard lock(lock_);
    return exiting_;
}

int mfwPluginDll::onPluginInit(void* /*host*/, void* a, void* b, void* c) {
    mfwPluginDll* plugin = g_instance;
    if (plugin == nullptr) {
        return 0;
    }
    try {
        if (plugin->pluginInit(a, b, c)) {
            return plugin->pluginInitDone() ? 1 : 0;
        }
        // Installing never runs on the host's loading thread.
        return corethread::startDetached(
                   "PluginInitThread", [plugin, a, b, c] { plugin->pluginServiceInstall(a, b, c); })
                   ? 1
                   : 0;
    } catch (const coreException& e) {
        MFW_LOG(kLogError, "mfwPluginDll exception during init, error %s", e.what());
    } catch (...) {
        MFW_LOG(kLogError, "mfwPluginDll exception during init");
    }
    // A failing init is deliberately not reported to the host as failure.
    return 1;
}

bool mfwPluginDll::onPluginParams(const PropertyBag* params) {
    mfwPluginDll* plugin = g_instance;
    if (params == nullptr || plugin == nullptr) {
        return true;
    }
    std::lock_guard lock(plugin->lock_);
    plugin->params_ = *params;
    return true;
}

void mfwPluginDll::onPluginExit() {
    mfwPluginDll* plugin = g_instance;
    if (plugin != nullptr) {
        {
            std::lock_guard lock(plugin->lock_);
            plugin->exiting_ = true;
        }
        plugin->exitEvent_.set();
        try {
            plugin->pluginServiceUninstall();
        } catch (const coreException& e) {
            MFW_LOG(kLogError, "mfwPluginDll exception during cleanup, error %s", e.what());
        } catch (...) {
            MFW_LOG(kLogError, "mfwPluginDll exception during cleanup");
        }
    }
    MFW_LOG(kLogVerbose, "mfwPluginDll wait for threads to go");
    corethreadgroup::module().wait();
    MFW_LOG(kLogVerbose, "mfwPluginDll: all threads gone");
}

void mfwPluginDll::onModuleLoad(void* moduleHandle, const char* modulePath) {
    if (modulePath != nullptr) {
        setModuleSourceName(std::filesystem::path(modulePath).stem().string());
    }
    if (g_instance != nullptr) {
        g_instance->moduleHandle_ = moduleHandle;
    }
    MFW_LOG(kLogVerbose, "mfwPluginDll: module %s loaded", moduleSourceName());
}

}  // namespace CORE
