#pragma once
// The zone database's backend: the ICU-derived zone data lives in
// ndpx_zones.so, next
// to the module, opened on the first look-up (time-zone template messages
// are rare, and an idle agent need not map ICU).

#include "timezone/ZoneDatabase.h"

#include <platform/Backend.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ndpx {

inline constexpr const char* kZoneBackendStem = "ndpx_zones";
inline constexpr std::uint32_t kZoneBackendVersion = 1;

// What ndpx_zones.so's entry point returns.
struct ZoneBackendTable {
    platform::BackendTable header;
    // The backend's database, shared and kept for the process's life.
    const ZoneDatabase* (*database)();
    // What the library's data says about keys and zones (IcuZones.h).
    std::string (*zoneForKey)(const std::string& key);
    std::vector<std::string> (*aliases)(const std::string& zone);
    std::optional<int> (*standardBias)(const std::string& zone);
};

}  // namespace ndpx
