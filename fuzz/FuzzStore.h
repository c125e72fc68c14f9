#pragma once
// A settings store of a fuzz target's own, under a fresh temporary root, made
// the process's registry.

#include "FuzzCheck.h"

#include <mfw/registry.h>
#include <platform/Paths.h>
#include <platform/SettingsStore.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace ndpx::fuzz {

inline std::shared_ptr<platform::SettingsStore> temporaryStore(const std::string& name) {
    std::string dir = "/tmp/" + name + ".XXXXXX";
    if (::mkdtemp(dir.data()) == nullptr) {
        fail("no temporary folder");
    }
    platform::paths::setRoot(dir);
    std::string error;
    std::shared_ptr<platform::SettingsStore> store =
        platform::openSqliteSettingsStore(platform::paths::settingsStoreFile().string(), error);
    check(store != nullptr, "no settings store", error);
    CORE::setRegistry(store);
    return store;
}

}  // namespace ndpx::fuzz
