#include "host/HostSettings.h"

#include <config/mqttConfig.h>
#include <mfw/log.h>

#include <utility>

namespace ndpx::host {
namespace {
constexpr const char* kSource = "agenthost";
}

HostSettings::HostSettings(std::unique_ptr<platform::SettingsStore> store, int startLevel)
    : store_(std::move(store)), startLevel_(startLevel), level_(startLevel) {}

HostSettings::~HostSettings() {
    stop();
}

void HostSettings::start() {
    reload();
    if (store_) {
        watch_ = store_->watch([this] { reload(); });
    }
}

void HostSettings::stop() {
    watch_.reset();
}

std::string HostSettings::desktop() const {
    std::lock_guard lock(mutex_);
    return desktop_;
}

void HostSettings::reload() {
    if (!store_) {
        return;
    }
    const auto identity = store_->get(kNodeManagerKey, "mqtt_AgentIdentity");
    int level = startLevel_;
    const auto stored = store_->get(kHostKey, kLogLevelValue);
    bool invalid = false;
    if (stored) {
        if (stored->type == platform::SettingValue::Type::Dword &&
            stored->dword <= CORE::kLogError) {
            level = static_cast<int>(stored->dword);
        } else {
            invalid = true;
        }
    }
    int previous = 0;
    {
        std::lock_guard lock(mutex_);
        desktop_ = identity ? identity->asText() : std::string();
        previous = level_;
        if (!invalid) {
            level_ = level;
        }
    }
    if (invalid) {
        // Once per value: every write to the store brings us here again.
        const std::string text = stored->asText();
        if (text == reportedInvalid_) {
            return;
        }
        reportedInvalid_ = text;
        CORE::__SysMessage(kSource, CORE::kLogError,
                           "agenthost: %s\\%s must be a DWORD from 0 to 4; the log level stays %d",
                           kHostKey, kLogLevelValue, previous);
        return;
    }
    reportedInvalid_.clear();
    if (level != previous) {
        CORE::setLogLevel(level);
        // Said at warning level so that it shows whichever way the level went.
        CORE::__SysMessage(kSource, CORE::kLogWarning, "agenthost: log level now %d (%s)", level,
                           stored ? "from the settings store" : "from the command line");
    }
}

}  // namespace ndpx::host
