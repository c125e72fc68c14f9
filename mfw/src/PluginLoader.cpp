#include <mfw/PluginLoader.h>
#include <mfw/corestring.h>
#include <mfw/log.h>
#include <platform/SharedLibrary.h>

#include <filesystem>

namespace CORE {
namespace {
constexpr const char* kSource = "mfw";
}

struct PluginLoader::Module {
    std::string path;
    std::string name;
    ndpx::platform::SharedLibrary library;
    PluginInitFn init = nullptr;
    PluginParamsFn params = nullptr;
    PluginExitFn exit = nullptr;
    std::mutex lifecycle;  // held by load() through PluginInit, by unload() until unloaded
};

PluginLoader::PluginLoader() = default;
PluginLoader::~PluginLoader() {
    unloadAll();
}

std::string PluginLoader::moduleName(const std::string& path) {
    return std::filesystem::path(path).stem().string();
}

bool PluginLoader::load(const std::string& path, const PropertyBag& params, std::string& error) {
    auto module = std::make_unique<Module>();
    module->path = path;
    module->name = moduleName(path);
    {
        std::lock_guard lock(mutex_);
        for (const auto& m : modules_) {
            if (iequals(m->name, module->name)) {
                error = "a plug-in named " + module->name + " is already loaded";
                return false;
            }
        }
    }
    if (!module->library.load(path, error)) {
        return false;
    }
    module->init = reinterpret_cast<PluginInitFn>(module->library.symbol("PluginInit"));
    module->params = reinterpret_cast<PluginParamsFn>(module->library.symbol("PluginParams"));
    module->exit = reinterpret_cast<PluginExitFn>(module->library.symbol("PluginExit"));
    if (module->init == nullptr || module->params == nullptr || module->exit == nullptr) {
        error = path + " does not export PluginInit, PluginParams and PluginExit";
        return false;  // unloaded with `module`
    }
    // Listed before PluginInit: the module may ask to be unloaded from the
    // install thread that PluginInit starts, before init has even returned.
    Module* raw = module.get();
    std::unique_lock life(raw->lifecycle);
    {
        std::lock_guard lock(mutex_);
        modules_.push_back(std::move(module));
    }
    PropertyBag copy = params;
    raw->params(&copy);
    if (raw->init(nullptr, nullptr, nullptr, nullptr) != 1) {
        error = path + ": PluginInit failed";
        life.unlock();
        unload(moduleName(path));
        return false;
    }
    __SysMessage(kSource, kLogInfo, "PluginLoader: loaded %s", path.c_str());
    return true;
}

bool PluginLoader::unload(const std::string& name) {
    std::unique_ptr<Module> module;
    {
        std::lock_guard lock(mutex_);
        for (auto it = modules_.begin(); it != modules_.end(); ++it) {
            if (iequals((*it)->name, name)) {
                module = std::move(*it);
                modules_.erase(it);
                break;
            }
        }
    }
    if (!module) {
        __SysMessage(kSource, kLogWarning, "PluginLoader: no plug-in named %s is loaded",
                     name.c_str());
        return false;
    }
    __SysMessage(kSource, kLogInfo, "PluginLoader: unloading %s", module->path.c_str());
    {
        std::lock_guard life(module->lifecycle);
        module->exit();
        module->library.unload();
    }
    __SysMessage(kSource, kLogInfo, "PluginLoader: unloaded %s", module->name.c_str());
    return true;
}

void PluginLoader::unloadAll() {
    for (;;) {
        std::string name;
        {
            std::lock_guard lock(mutex_);
            if (modules_.empty()) {
                return;
            }
            name = modules_.back()->name;
        }
        unload(name);
    }
}

std::vector<std::string> PluginLoader::loadedNames() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& m : modules_) {
        names.push_back(m->name);
    }
    return names;
}

}  // namespace CORE
