#pragma once
// The plug-in base kept in every module: the module's single plug-in object,
// reached by the three exported entry points.

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>
#include <mfw/coreref.h>

#include <mutex>

namespace CORE {

using corecritsec = std::recursive_mutex;

class mfwPluginDll : public coreref {
public:
    // Registers this object as the module's plug-in instance.
    mfwPluginDll();
    ~mfwPluginDll() override;

    // Hooks, in slot order after the coreref ones.
    virtual bool pluginInit(void* a, void* b, void* c);
    virtual bool pluginInitDone();
    virtual void pluginServiceInstall(void* a, void* b, void* c);
    virtual void pluginServiceUninstall();

    static mfwPluginDll* instance();

    // What the exported functions do.
    static int onPluginInit(void* host, void* a, void* b, void* c);
    static bool onPluginParams(const PropertyBag* params);
    static void onPluginExit();
    // Module load: takes the module's file name as the log source name.
    static void onModuleLoad(void* moduleHandle, const char* modulePath);

    PropertyBag params() const;
    bool exiting() const;
    // Set once PluginExit begins: a wait during install (for another
    // worker, say) ends on it, so that exiting never waits out an install.
    coreevent& exitEvent() { return exitEvent_; }
    void* moduleHandle() const { return moduleHandle_; }

private:
    mutable corecritsec lock_;  // guards exiting_ and params_
    bool exiting_ = false;
    void* moduleHandle_ = nullptr;
    PropertyBag params_;
    coreevent exitEvent_;
};

}  // namespace CORE
