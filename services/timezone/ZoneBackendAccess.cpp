#include "ZoneBackendAccess.h"

#include <mfw/moduleLog.h>

namespace ndpx::zonebackend {
namespace {

struct Loaded {
    std::string failure;
    platform::BackendModule module{
        kZoneBackendStem, kZoneBackendVersion, [this](const std::string& reason) {
            failure =
                std::string("time-zone backend ") + kZoneBackendStem + " unavailable: " + reason;
            MFW_LOG(CORE::kLogError, "%s", failure.c_str());
        }};
};

Loaded& loaded() {
    static Loaded backend;
    return backend;
}

}  // namespace

const ZoneBackendTable* table() {
    Loaded& backend = loaded();
    // The loader's own address names the module that links this code.
    return reinterpret_cast<const ZoneBackendTable*>(
        backend.module.table(&backend, CORE::moduleSourceName()));
}

const std::string& failure() {
    table();  // written, if at all, before the first table() returns
    return loaded().failure;
}

std::string zoneForKey(const std::string& key) {
    const ZoneBackendTable* t = table();
    return t != nullptr ? t->zoneForKey(key) : std::string();
}

std::vector<std::string> aliases(const std::string& zone) {
    const ZoneBackendTable* t = table();
    return t != nullptr ? t->aliases(zone) : std::vector<std::string>{};
}

std::optional<int> standardBias(const std::string& zone) {
    const ZoneBackendTable* t = table();
    return t != nullptr ? t->standardBias(zone) : std::nullopt;
}

}  // namespace ndpx::zonebackend
