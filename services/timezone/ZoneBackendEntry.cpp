// ndpx_zones.so's one export: the zone database derived from ICU for the
// module that opens it.
#include "IcuZones.h"
#include "timezone/IcuZoneDatabase.h"
#include "timezone/ZoneBackend.h"

#include <mfw/moduleLog.h>

namespace {

const ndpx::ZoneDatabase* database() {
    // Read-only once built, so every caller may share it.
    static const ndpx::IcuZoneDatabase zones;
    return &zones;
}

const ndpx::ZoneBackendTable kTable{{ndpx::kZoneBackendVersion},
                                    &database,
                                    &ndpx::icuzones::zoneForKey,
                                    &ndpx::icuzones::aliases,
                                    &ndpx::icuzones::standardBias};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ndpx::platform::BackendTable*
ndpxBackendEntry(const char* logSource) {
    // This copy of the module's log code writes under the loader's name.
    CORE::setModuleSourceName(logSource != nullptr ? logSource : "ndpx");
    return &kTable.header;
}
