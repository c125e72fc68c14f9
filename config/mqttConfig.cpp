// mqttConfig itself: construction over the settings store, the process's
// instance, the range-checked integer reader, live-change reactions and the
// pairing secrets held in memory.

#include "config/mqttConfig.h"

#include "mqttConfigInternal.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <mfw/registry.h>

#include <cstdint>

namespace ndpx {
namespace {

std::mutex g_instanceMutex;
std::shared_ptr<mqttConfig> g_instance;
int g_users = 0;

}  // namespace

std::optional<std::int32_t> settings::parseInt32(std::wstring_view text) {
    const bool negative = !text.empty() && text.front() == L'-';
    if (!text.empty() && (negative || text.front() == L'+')) {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    constexpr std::int64_t kLimit = std::int64_t{1} << 31;
    std::int64_t magnitude = 0;
    for (const wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return std::nullopt;
        }
        magnitude = magnitude * 10 + (c - L'0');
        if (magnitude > kLimit) {
            return std::nullopt;
        }
    }
    if (!negative && magnitude == kLimit) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(negative ? -magnitude : magnitude);
}

bool settings::isTrue(std::wstring_view v) {
    return CORE::iequals(v, L"true") || v == L"1" || CORE::iequals(v, L"yes");
}

const char* migrationStatusName(int state) {
    static const char* const kNames[] = {
        "notstarted",     "bootstrap",        "connected",       "rollback",       "commit",
        "commitcomplete", "bootstrapinvalid", "bootstrapfailed", "rollbackfailed", "commitfailed"};
    return state >= 0 && state <= 9 ? kNames[state] : "unknown";
}

std::vector<std::wstring> splitList(const std::wstring& text) {
    std::vector<std::wstring> out;
    if (text.empty()) {
        return out;
    }
    std::size_t start = 0;
    for (;;) {
        const auto comma = text.find(L',', start);
        out.push_back(text.substr(start, comma - start));
        if (comma == std::wstring::npos) {
            return out;
        }
        start = comma + 1;
    }
}

std::wstring joinList(const std::vector<std::wstring>& items) {
    std::wstring out;
    for (const auto& item : items) {
        if (!out.empty()) {
            out += L',';
        }
        out += item;
    }
    return out;
}

mqttConfig::mqttConfig() : mqttConfig(nullptr) {}

mqttConfig::mqttConfig(std::shared_ptr<ndpx::platform::SettingsStore> store)
    : CORE::sysconfig(store ? std::move(store) : CORE::registryShared()) {
    composerAgentDetected_ = this->store().keyExists(kComposerKey);
    if (composerAgentDetected_) {
        MFW_LOG(CORE::kLogInfo, "XKPC agent detected");
    }
    init(CORE::toWide(kNodeManagerKey), defaultsList(), true, true);
}

mqttConfig::~mqttConfig() {
    // Stop the watch before this object's part goes: it calls changed().
    cleanup();
}

std::shared_ptr<mqttConfig> mqttConfig::load() {
    std::lock_guard lock(g_instanceMutex);
    if (!g_instance) {
        g_instance = std::make_shared<mqttConfig>();
    }
    ++g_users;
    return g_instance;
}

void mqttConfig::release() {
    std::shared_ptr<mqttConfig> last;
    {
        std::lock_guard lock(g_instanceMutex);
        if (g_users > 0 && --g_users == 0) {
            last = std::move(g_instance);
        }
    }
    // Destroyed outside the lock: the destructor joins the watch thread.
}

std::shared_ptr<mqttConfig> mqttConfig::current() {
    std::lock_guard lock(g_instanceMutex);
    return g_instance;
}

int mqttConfig::getIntInRange(const std::wstring& name, int min, int max) {
    std::lock_guard lock(this->lock());
    checkForChangesLockHeld();
    const Entry* entry = findLockHeld(name);
    if (entry == nullptr) {
        MFW_LOG(CORE::kLogError,
                "mqttConfig::getIntInRange(): Registry setting %s not defined, returning %d",
                CORE::toUtf8(name).c_str(), min);
        return min;
    }
    // The default is ours, not range-checked ("notstarted" reads as 0).
    const std::int32_t defaultValue = settings::parseInt32(entry->defaultText).value_or(0);
    if (entry->current == entry->defaultText) {
        return defaultValue;
    }
    // Text that is no 32-bit number is out of range, rather than cut down
    // to some number that happens to be in range.
    const std::optional<std::int32_t> value = settings::parseInt32(entry->current);
    // One unsigned comparison rejects values below min as well as above max.
    const auto span = static_cast<std::uint32_t>(static_cast<std::int64_t>(max) - min);
    if (value && static_cast<std::uint32_t>(static_cast<std::int64_t>(*value) - min) <= span) {
        return *value;
    }
    MFW_LOG(CORE::kLogError,
            "mqttConfig::getIntInRange(): Registry setting %s out of range, returning default %s",
            CORE::toUtf8(name).c_str(), CORE::toUtf8(entry->defaultText).c_str());
    return defaultValue;
}

int mqttConfig::readInt(const wchar_t* name) {
    const SettingDef& d = settings::definition(name);
    return getIntInRange(name, d.min, d.max);
}

std::string mqttConfig::readNarrow(const wchar_t* name) {
    return CORE::toUtf8(get(name));
}

std::vector<std::wstring> mqttConfig::readList(const wchar_t* name) {
    return splitList(get(name));
}

void mqttConfig::setPairingSecrets(PairingSecrets secrets) {
    std::lock_guard lock(secretsMutex_);
    secrets_ = std::move(secrets);
}

mqttConfig::PairingSecrets mqttConfig::pairingSecrets() const {
    std::lock_guard lock(secretsMutex_);
    return secrets_;
}

void mqttConfig::setLiveChangeHandlers(LiveChangeHandlers handlers) {
    std::lock_guard lock(handlersMutex_);
    handlers_ = std::move(handlers);
}

void mqttConfig::changed(const std::wstring& name, const std::wstring& value) {
    CORE::sysconfig::changed(name, value);
    LiveChangeHandlers handlers;
    {
        std::lock_guard lock(handlersMutex_);
        handlers = handlers_;
    }
    if (CORE::iequals(name, L"AsyncSessionSeconds")) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): %s changed to %s",
                CORE::toUtf8(name).c_str(), CORE::toUtf8(value).c_str());
        if (handlers.asyncSessionSecondsChanged) {
            handlers.asyncSessionSecondsChanged();
        }
    } else if (CORE::iequals(name, L"mqtt_TriggerCertRefresh") && settings::isTrue(value)) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): certificate refresh requested");
        if (handlers.triggerCertRefresh) {
            handlers.triggerCertRefresh(true);
        }
    } else if (CORE::iequals(name, L"mqtt_TriggerCertSwap") && settings::isTrue(value)) {
        MFW_LOG(CORE::kLogDebug, "mqttConfig::changed(): certificate refresh and swap requested");
        if (handlers.triggerCertSwap) {
            handlers.triggerCertSwap();
        }
    }
}

}  // namespace ndpx
