#include "LoadedZoneDatabase.h"
#include "timezone/SystemTimeZone.h"
#include "timezone/linux/LinuxZoneSystem.h"

#include <platform/Paths.h>

namespace ndpx {

std::unique_ptr<SystemTimeZone> makeSystemTimeZone(const std::filesystem::path& root,
                                                   const std::filesystem::path& stateFolder) {
    return std::make_unique<SystemTimeZone>(std::make_unique<LoadedZoneDatabase>(),
                                            std::make_unique<LinuxZoneSystem>(root, stateFolder));
}

std::unique_ptr<SystemTimeZone> makeSystemTimeZone() {
    return makeSystemTimeZone(platform::paths::root(), defaultZoneFolder());
}

std::filesystem::path defaultZoneFolder() {
    return platform::paths::programData() / "ndpx_mqtt" / "timezones";
}

}  // namespace ndpx
