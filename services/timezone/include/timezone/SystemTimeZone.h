#pragma once
// Sets the desktop's time zone when the control plane asks for one: by the
// zone's name, looked up in the zone database, or failing a name by its UTC
// offset. The dynamic way of setting a zone is tried first, the classic one
// is the fall-back.
//
// No thread and no lock of its own: each call runs on its caller's thread,
// and the backends hold no state that calls share.

#include "timezone/ZoneDatabase.h"
#include "timezone/ZoneSystem.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace ndpx {

class SystemTimeZone {
public:
    SystemTimeZone(std::unique_ptr<ZoneDatabase> database, std::unique_ptr<ZoneSystem> system);
    virtual ~SystemTimeZone();
    SystemTimeZone(const SystemTimeZone&) = delete;
    SystemTimeZone& operator=(const SystemTimeZone&) = delete;

    // UTF-8 texts. The name wins over the offset ("-5:30", "5:45"). False when
    // nothing was set, including an offset equal to the bias in force.
    virtual bool SetTimeZone(const std::string& name, bool dayLightDisabled,
                             const std::string& offset);

protected:
    // For stand-ins in tests that override SetTimeZone; nothing else works.
    SystemTimeZone();

private:
    struct Found {
        std::string keyName;
        ZoneRules rules;
        std::string daylightName;
    };

    std::optional<Found> FindTimeZoneInRegistry(const std::string& name) const;
    std::optional<std::string> FindStdTimezoneInRegistry(const std::string& name) const;
    std::optional<int> GetTzOffset(const std::string& offset) const;
    bool GetFunctionPointers() const;
    bool apply(const std::string& name, const Found& zone, bool dayLightDisabled);
    bool CallSetDynamicTimeZoneInfo(const std::string& name, const Found& zone,
                                    bool dayLightDisabled);
    bool CallSetDynamicTimeZoneInfoApi(const ZoneSetting& setting);
    bool CallSetTimeZoneInfo(const std::string& name, const Found& zone);
    bool CallSetTimeZoneInfoApi(const ZoneSetting& setting);

    std::unique_ptr<ZoneDatabase> database_;
    std::unique_ptr<ZoneSystem> system_;
};

// The production zone setter: ICU's zone database and the machine under
// `root` ("/" for the real machine, which is then changed through timedated).
// Zones of an odd offset are compiled into `stateFolder`, which must outlive
// the setting and be readable by every user.
std::unique_ptr<SystemTimeZone> makeSystemTimeZone(const std::filesystem::path& root,
                                                   const std::filesystem::path& stateFolder);
// The same for platform::paths::root() and defaultZoneFolder().
std::unique_ptr<SystemTimeZone> makeSystemTimeZone();
// $ROOT/var/lib/ndpx_mqtt/timezones: outside the agent's private folders,
// as every program reads a compiled zone.
std::filesystem::path defaultZoneFolder();

}  // namespace ndpx
