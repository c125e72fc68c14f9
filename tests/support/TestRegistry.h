#pragma once
// Gives a test its own settings store (a real SQLite file in a temporary
// directory) as the process registry, and a log capture at level 0.

#include "support/TempDir.h"

#include <mfw/log.h>
#include <mfw/registry.h>
#include <platform/SettingsStore.h>

#include <memory>
#include <string>

namespace ndpx::test {

class TestRegistry {
public:
    TestRegistry();
    ~TestRegistry();

    platform::SettingsStore& store() { return *store_; }
    std::shared_ptr<platform::SettingsStore> shared() { return store_; }
    const std::filesystem::path& root() const { return dir_.path(); }
    CORE::CaptureSink& log() { return *log_; }

    void setString(const std::string& key, const std::string& name, const std::string& value);
    void setDword(const std::string& key, const std::string& name, std::uint32_t value);

private:
    TempDir dir_;
    std::shared_ptr<platform::SettingsStore> store_;
    std::shared_ptr<CORE::CaptureSink> log_;
};

inline const std::string kNodeManagerKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";

}  // namespace ndpx::test
