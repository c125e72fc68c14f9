#pragma once
// Settings the host follows while it runs: its log level ("LogLevel" under
// the host's key; absent: the command line's), and the desktop's identity,
// which its journal entries carry. Both are re-read when the store changes.

#include <platform/SettingsStore.h>

#include <memory>
#include <mutex>
#include <string>

namespace ndpx::host {

inline constexpr const char* kHostKey =
    "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Agent Host";
inline constexpr const char* kLogLevelValue = "LogLevel";

class HostSettings {
public:
    // `startLevel` is the level while the store holds none.
    HostSettings(std::unique_ptr<platform::SettingsStore> store, int startLevel);
    ~HostSettings();
    HostSettings(const HostSettings&) = delete;
    HostSettings& operator=(const HostSettings&) = delete;

    // Reads both now and follows the store's changes from here on.
    void start();
    // Stops following; the watch's thread is joined.
    void stop();
    // The paired desktop's identity; empty before pairing.
    std::string desktop() const;
    // Reads both again (what a change of the store does).
    void reload();

private:
    const std::unique_ptr<platform::SettingsStore> store_;
    const int startLevel_;
    std::unique_ptr<platform::SettingsWatch> watch_;
    std::string reportedInvalid_;  // reload's own: start, then the watch's thread
    mutable std::mutex mutex_;     // the two values below; no call out while held
    std::string desktop_;
    int level_;
};

}  // namespace ndpx::host
