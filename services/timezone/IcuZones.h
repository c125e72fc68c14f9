#pragma once
// What the library's zone data says about Windows zone keys and the zones
// behind them. Read-only after the first call, so any thread may ask.

#include "timezone/ZoneDatabase.h"

#include <optional>
#include <string>
#include <vector>

namespace ndpx::icuzones {

// Every Windows zone key the library maps to a zone, in the order the
// registry lists keys (by name, letter case ignored).
const std::vector<std::string>& windowsKeys();

// The zone behind a key (its letter case ignored); empty when there is none.
std::string zoneForKey(const std::string& key);

// The zone's other names (links of the zone database), the zone first.
std::vector<std::string> aliases(const std::string& zone);

// The zone's standard bias in minutes; nothing for a zone the library lacks.
std::optional<int> standardBias(const std::string& zone);

// The zone's rules as they stand now.
std::optional<ZoneRules> currentRules(const std::string& zone);

}  // namespace ndpx::icuzones
