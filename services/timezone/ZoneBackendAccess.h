#pragma once
// The zone backend (ndpx_zones.so) as this module's time-zone code reaches
// it: opened on the first call, from the module's own folder. Without it
// (missing, or of another version; the log says why, once) there is no zone
// data: the look-ups answer "none".

#include "timezone/ZoneBackend.h"

#include <optional>
#include <string>
#include <vector>

namespace ndpx::zonebackend {

// Null when the backend cannot be used; failure() then says why.
const ZoneBackendTable* table();
const std::string& failure();

std::string zoneForKey(const std::string& key);
std::vector<std::string> aliases(const std::string& zone);
std::optional<int> standardBias(const std::string& zone);

}  // namespace ndpx::zonebackend
