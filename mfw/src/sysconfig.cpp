#include <mfw/corestring.h>
#include <mfw/log.h>
#include <mfw/registry.h>
#include <mfw/sysconfig.h>

#include <cwchar>

namespace CORE {

sysconfig::sysconfig() : sysconfig(registryShared()) {}

sysconfig::sysconfig(std::shared_ptr<ndpx::platform::SettingsStore> store)
    : store_(std::move(store)) {}

sysconfig::~sysconfig() {
    cleanup();
}

bool sysconfig::init(const std::wstring& keyPath, const std::vector<std::wstring>& defaults,
                     bool watch, bool create) {
    {
        std::lock_guard lock(mutex_);
        keyPath_ = keyPath;
        defaults_.clear();
        for (const auto& item : defaults) {
            const auto eq = item.find(L'=');
            Entry e;
            e.name = item.substr(0, eq);
            e.defaultText = eq == std::wstring::npos ? std::wstring() : item.substr(eq + 1);
            e.current = e.defaultText;
            defaults_.push_back(std::move(e));
        }
        if (create) {
            store_->createKey(toUtf8(keyPath_));
        }
        loadLockHeld();
    }
    {
        std::lock_guard lock(notifyMutex_);
        std::lock_guard entriesLock(mutex_);
        notified_.clear();
        for (const auto& e : entries_) {
            notified_.emplace_back(e.name, e.current);
        }
    }
    if (watch && !watch_) {
        watch_ = store_->watch([this] { onStoreChanged(); });
        if (const auto why = watch_ ? watch_->pollingReason() : std::string(); !why.empty()) {
            __SysMessage("mfw", kLogWarning,
                         "sysconfig: changes to the settings of %s are looked for every second, "
                         "not seen at once (%s)",
                         toUtf8(keyPath).c_str(), why.c_str());
        }
    }
    return true;
}

void sysconfig::loadLockHeld() {
    loadedVersion_ = store_->changeCounter();
    const auto values = store_->listValues(toUtf8(keyPath_));
    entries_ = defaults_;
    for (const auto& [name, value] : values) {
        const std::wstring wname = toWide(name);
        bool known = false;
        for (auto& e : entries_) {
            if (iequals(e.name, wname)) {
                e.current = toWide(value.asText());
                known = true;
                break;
            }
        }
        if (!known) {
            entries_.push_back(Entry{wname, toWide(value.asText()), std::wstring()});
        }
    }
}

void sysconfig::checkForChangesLockHeld() {
    if (store_->changeCounter() != loadedVersion_) {
        loadLockHeld();
    }
}

const sysconfig::Entry* sysconfig::findLockHeld(const std::wstring& name) const {
    for (const auto& e : entries_) {
        if (iequals(e.name, name)) {
            return &e;
        }
    }
    return nullptr;
}

std::wstring sysconfig::get(const std::wstring& name) {
    std::lock_guard lock(mutex_);
    checkForChangesLockHeld();
    const Entry* e = findLockHeld(name);
    return e != nullptr ? e->current : std::wstring();
}

bool sysconfig::getBool(const std::wstring& name) {
    const std::wstring v = get(name);
    return iequals(v, L"true") || v == L"1" || iequals(v, L"yes");
}

int sysconfig::getInt(const std::wstring& name) {
    const std::wstring v = get(name);
    return static_cast<int>(std::wcstol(v.c_str(), nullptr, 10));
}

void sysconfig::reload(bool notify) {
    {
        std::lock_guard lock(mutex_);
        loadLockHeld();
    }
    if (!notify) {
        return;
    }
    // Notifications are serialised so that changed() sees values in order;
    // the entries lock is not held while changed() runs.
    std::lock_guard notifyLock(notifyMutex_);
    std::vector<std::pair<std::wstring, std::wstring>> current;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_) {
            current.emplace_back(e.name, e.current);
        }
    }
    std::vector<std::pair<std::wstring, std::wstring>> changes;
    for (const auto& [name, value] : current) {
        bool same = false;
        for (const auto& [oldName, oldValue] : notified_) {
            if (iequals(oldName, name)) {
                same = oldValue == value;
                break;
            }
        }
        if (!same) {
            changes.emplace_back(name, value);
        }
    }
    for (const auto& [oldName, oldValue] : notified_) {
        bool present = false;
        for (const auto& [name, value] : current) {
            present = present || iequals(oldName, name);
        }
        if (!present) {
            changes.emplace_back(oldName, std::wstring());
        }
    }
    notified_ = std::move(current);
    for (const auto& [name, value] : changes) {
        try {
            changed(name, value);
        } catch (...) {
            __SysMessage("mfw", kLogError, "sysconfig: change handler for %s threw",
                         toUtf8(name).c_str());
        }
    }
}

bool sysconfig::update(const std::wstring& name, const std::wstring& value) {
    const bool ok = store_->set(toUtf8(keyPath_), toUtf8(name),
                                ndpx::platform::SettingValue::ofString(toUtf8(value)));
    std::lock_guard lock(mutex_);
    loadLockHeld();
    return ok;
}

void sysconfig::cleanup() {
    watch_.reset();  // joins the watch thread before the entries go
    std::lock_guard lock(mutex_);
    entries_.clear();
}

void sysconfig::changed(const std::wstring& name, const std::wstring& /*value*/) {
    // Values may be secrets: only the name is logged.
    __SysMessage("mfw", kLogVerbose, "sysconfig: %s changed", toUtf8(name).c_str());
}

void sysconfig::onStoreChanged() {
    reload(true);
}

}  // namespace CORE
