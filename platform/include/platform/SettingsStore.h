#pragma once
// The settings store: the agent's "registry". Keys are Windows-style paths
// ("HKLM\Software\Brasswick, Inc.\Brasswick Orvane\Node Manager"), compared
// without regard to case; each key holds named, typed values. Text is UTF-8.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ndpx::platform {

struct SettingValue {
    enum class Type { String, Dword, MultiString };

    Type type = Type::String;
    std::string text;                // String
    std::uint32_t dword = 0;         // Dword
    std::vector<std::string> multi;  // MultiString

    static SettingValue ofString(std::string s);
    static SettingValue ofDword(std::uint32_t v);
    static SettingValue ofMulti(std::vector<std::string> v);

    // The value as text: the string, the decimal number, or the strings
    // joined with ",".
    std::string asText() const;
    bool operator==(const SettingValue&) const = default;
};

// Normalises a key path: "HKEY_LOCAL_MACHINE" becomes "HKLM", separators are
// single backslashes, no leading or trailing separator.
std::string normalizeKeyPath(std::string_view key);

// Splits "KEY\NAME" at its last backslash into (key, name).
std::pair<std::string, std::string> splitValuePath(std::string_view fullPath);

class SettingsStore {
public:
    virtual ~SettingsStore() = default;

    virtual std::optional<SettingValue> get(std::string_view key, std::string_view name) = 0;
    // Creates the key (and its parents) when needed.
    virtual bool set(std::string_view key, std::string_view name, const SettingValue& value) = 0;
    // Removing a missing value succeeds.
    virtual bool remove(std::string_view key, std::string_view name) = 0;
    // Removes the key, its values and all its subkeys.
    virtual bool removeKey(std::string_view key) = 0;
    virtual bool createKey(std::string_view key) = 0;
    virtual bool keyExists(std::string_view key) = 0;
    // Values of one key in name order.
    virtual std::vector<std::pair<std::string, SettingValue>> listValues(std::string_view key) = 0;
    // Names (last path component) of the direct subkeys, in name order.
    virtual std::vector<std::string> listSubkeys(std::string_view key) = 0;

    // Drops the copies of earlier contents that the backend keeps beside the
    // live values (a write-ahead log or journal), so that a secret just
    // overwritten or removed cannot be read back from the store's files. Call
    // it after writing or removing a secret. A backend that keeps no such
    // copies has nothing to do. False when the copies may still be there.
    virtual bool scrub() { return true; }

    // Why the last write, removal or key creation that failed failed, naming
    // the store ("/var/lib/.../registry.sqlite: disk I/O error ..."),
    // for the log; empty when the backend cannot tell.
    virtual std::string lastWriteError() { return {}; }

    // A number that changes whenever anything in the store changed, whoever
    // wrote it (this process or another). Cheap: no value is read.
    virtual std::uint64_t changeCounter() = 0;

    // Calls `onChange` soon after anyone wrote the store; nullptr when this
    // store cannot be watched. By value: a store that can be watched keeps it.
    // NOLINTNEXTLINE(performance-unnecessary-value-param)
    virtual std::unique_ptr<class SettingsWatch> watch(std::function<void()> onChange) {
        (void)onChange;
        return nullptr;
    }
};

// Calls `onChange` (on a thread the watch owns) soon after the store was
// written by anyone. Destroying the watch stops and joins its thread.
class SettingsWatch {
public:
    virtual ~SettingsWatch() = default;
    // Empty while changes are noticed as they happen; otherwise why they are
    // only looked for now and then (e.g. no inotify instance left).
    virtual std::string pollingReason() const { return {}; }
};

// The Linux backend: SQLite, WAL, file mode 0600, change watch by inotify.
std::unique_ptr<SettingsStore> openSqliteSettingsStore(const std::string& file, std::string& error);
std::unique_ptr<SettingsWatch> watchSqliteSettingsStore(const std::string& file,
                                                        std::function<void()> onChange);

}  // namespace ndpx::platform
