#pragma once
// Loads plug-in modules with dlopen and drives their three entry points.

#include <mfw/PluginAbi.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace CORE {

class PluginLoader {
public:
    PluginLoader();
    ~PluginLoader();  // unloads everything still loaded
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // dlopen + PluginParams(params) + PluginInit. False (and `error`) on failure.
    bool load(const std::string& path, const PropertyBag& params, std::string& error);
    // PluginExit then dlclose. `name` is the file name without directory and
    // suffix ("ndpx_mqtt"), compared without regard to case.
    bool unload(const std::string& name);
    void unloadAll();
    std::vector<std::string> loadedNames() const;

    // "/x/y/ndpx_mqtt.so" -> "ndpx_mqtt"
    static std::string moduleName(const std::string& path);

private:
    struct Module;
    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<Module>> modules_;
};

}  // namespace CORE
