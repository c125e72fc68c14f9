#include "support/TestRegistry.h"

#include <platform/Paths.h>

#include <stdexcept>

namespace ndpx::test {

TestRegistry::TestRegistry() : log_(std::make_shared<CORE::CaptureSink>()) {
    platform::paths::setRoot(dir_.path());
    std::string error;
    store_ =
        platform::openSqliteSettingsStore(platform::paths::settingsStoreFile().string(), error);
    if (!store_) {
        throw std::runtime_error("cannot open test store: " + error);
    }
    CORE::setRegistry(store_);
    CORE::setLogLevel(CORE::kLogVerbose);
    CORE::addLogSink(log_);
}

TestRegistry::~TestRegistry() {
    CORE::removeLogSink(log_);
    CORE::setRegistry(nullptr);
    platform::paths::setRoot({});  // back to $NDPX_ROOT: nothing may write into the dead root
}

void TestRegistry::setString(const std::string& key, const std::string& name,
                             const std::string& value) {
    store_->set(key, name, platform::SettingValue::ofString(value));
}

void TestRegistry::setDword(const std::string& key, const std::string& name, std::uint32_t value) {
    store_->set(key, name, platform::SettingValue::ofDword(value));
}

}  // namespace ndpx::test
