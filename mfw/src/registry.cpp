#include <mfw/corestring.h>
#include <mfw/log.h>
#include <mfw/registry.h>
#include <platform/Paths.h>

#include <mutex>

namespace CORE {
namespace {

using ndpx::platform::SettingsStore;
using ndpx::platform::SettingValue;

// Keeps nothing: stands in when the database cannot be opened, so that
// readers see defaults instead of the process failing.
class NullStore : public SettingsStore {
public:
    std::optional<SettingValue> get(std::string_view, std::string_view) override { return {}; }
    bool set(std::string_view, std::string_view, const SettingValue&) override { return false; }
    bool remove(std::string_view, std::string_view) override { return false; }
    bool removeKey(std::string_view) override { return false; }
    bool createKey(std::string_view) override { return false; }
    bool keyExists(std::string_view) override { return false; }
    std::vector<std::pair<std::string, SettingValue>> listValues(std::string_view) override {
        return {};
    }
    std::vector<std::string> listSubkeys(std::string_view) override { return {}; }
    std::uint64_t changeCounter() override { return 0; }
};

std::mutex g_mutex;
std::shared_ptr<SettingsStore> g_store;

std::shared_ptr<SettingsStore> current() {
    std::lock_guard lock(g_mutex);
    if (!g_store) {
        std::string error;
        const std::string file = ndpx::platform::paths::settingsStoreFile().string();
        std::shared_ptr<SettingsStore> store = ndpx::platform::openSqliteSettingsStore(file, error);
        if (!store) {
            __SysMessage("mfw", kLogError, "registry: cannot open settings store %s: %s",
                         file.c_str(), error.c_str());
            store = std::make_shared<NullStore>();
        }
        g_store = std::move(store);
    }
    return g_store;
}

}  // namespace

SettingsStore& registry() {
    // The store lives until replaced; callers use it briefly.
    return *current();
}

std::shared_ptr<SettingsStore> registryShared() {
    return current();
}

void setRegistry(std::shared_ptr<SettingsStore> store) {
    std::lock_guard lock(g_mutex);
    g_store = std::move(store);
}

std::optional<std::string> readRegistry(std::string_view fullPath) {
    const auto [key, name] = ndpx::platform::splitValuePath(fullPath);
    auto value = current()->get(key, name);
    if (!value) {
        return std::nullopt;
    }
    return value->asText();
}

bool writeRegistryString(std::string_view fullPath, std::string_view value) {
    const auto [key, name] = ndpx::platform::splitValuePath(fullPath);
    return current()->set(key, name, SettingValue::ofString(std::string(value)));
}

bool writeRegistryDword(std::string_view fullPath, std::uint32_t value) {
    const auto [key, name] = ndpx::platform::splitValuePath(fullPath);
    return current()->set(key, name, SettingValue::ofDword(value));
}

}  // namespace CORE
