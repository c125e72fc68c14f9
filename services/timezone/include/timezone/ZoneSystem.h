#pragma once
// The machine side of the time zone: the bias in force and the two ways of
// setting a zone. The dynamic way names the zone by its key and can switch
// daylight saving off; the classic way carries only names and rules.

#include "timezone/ZoneDatabase.h"

#include <optional>
#include <string>

namespace ndpx {

struct ZoneSetting {
    ZoneRules rules;
    std::string standardName;
    std::string daylightName;
    std::string keyName;            // dynamic only; empty for a zone given by its offset
    bool daylightDisabled = false;  // dynamic only
};

class ZoneSystem {
public:
    virtual ~ZoneSystem() = default;

    // Whether the dynamic way exists on this machine.
    virtual bool hasDynamicZones() const = 0;
    // The standard bias of the zone in force; nothing (and `error`) on failure.
    virtual std::optional<int> currentBias(std::string& error) const = 0;
    virtual bool setDynamic(const ZoneSetting& zone, std::string& error) = 0;
    virtual bool setClassic(const ZoneSetting& zone, std::string& error) = 0;
};

}  // namespace ndpx
