#pragma once
// Settings of one registry key with defaults: an in-memory list of
// (name, current text, default text), names compared without regard to case.
// A change watch calls the virtual changed() for each value that changed.

#include <platform/SettingsStore.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace CORE {

class sysconfig {
public:
    sysconfig();
    explicit sysconfig(std::shared_ptr<ndpx::platform::SettingsStore> store);
    virtual ~sysconfig();
    sysconfig(const sysconfig&) = delete;
    sysconfig& operator=(const sysconfig&) = delete;

    // `defaults` holds "name=default text" items. With `watch` a thread
    // watches the store and calls changed(); `create` makes the key if missing.
    bool init(const std::wstring& keyPath, const std::vector<std::wstring>& defaults, bool watch,
              bool create);

    std::wstring get(const std::wstring& name);
    // "true"/"1"/"yes" (any case) are true; anything else is false.
    bool getBool(const std::wstring& name);
    // Decimal text; 0 when missing or not a number.
    int getInt(const std::wstring& name);

    // Rereads the key. With `notify` the changed() hook runs for the values
    // that differ from what was last notified.
    void reload(bool notify);
    // Writes one value through to the store (as a string) and to the list.
    bool update(const std::wstring& name, const std::wstring& value);
    // Stops the watch and empties the list.
    void cleanup();

    const std::wstring& keyPath() const { return keyPath_; }
    ndpx::platform::SettingsStore& store() { return *store_; }

protected:
    // Called on the watch thread with the new text of a changed value.
    virtual void changed(const std::wstring& name, const std::wstring& value);

    // The change-watch step: picks up values written since the last load.
    // Callers hold lock().
    void checkForChangesLockHeld();

    struct Entry {
        std::wstring name;
        std::wstring current;
        std::wstring defaultText;
    };
    // Linear, case-blind look-up; callers hold lock().
    const Entry* findLockHeld(const std::wstring& name) const;
    std::recursive_mutex& lock() { return mutex_; }

private:
    void loadLockHeld();
    void onStoreChanged();

    std::shared_ptr<ndpx::platform::SettingsStore> store_;
    std::wstring keyPath_;
    std::vector<Entry> defaults_;
    std::recursive_mutex mutex_;
    std::vector<Entry> entries_;
    std::uint64_t loadedVersion_ = 0;
    std::mutex notifyMutex_;  // serialises change notifications
    std::vector<std::pair<std::wstring, std::wstring>> notified_;
    std::unique_ptr<ndpx::platform::SettingsWatch> watch_;
};

}  // namespace CORE
