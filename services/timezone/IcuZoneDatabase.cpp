#include "timezone/IcuZoneDatabase.h"

#include "IcuZones.h"

#include <mfw/corestring.h>

#include <algorithm>
#include <string_view>

namespace ndpx {
namespace {

constexpr std::string_view kStandard = "Standard";
constexpr std::string_view kDaylight = "Daylight";

}  // namespace

IcuZoneDatabase::IcuZoneDatabase() : keys_(icuzones::windowsKeys()) {}

std::string IcuZoneDatabase::location() const {
    return "icu:windowsZones";
}

bool IcuZoneDatabase::isOpen() const {
    return !keys_.empty();
}

std::optional<std::size_t> IcuZoneDatabase::keyCount() const {
    return keys_.size();
}

std::optional<std::string> IcuZoneDatabase::keyName(std::size_t index) const {
    if (index >= keys_.size()) {
        return std::nullopt;
    }
    return keys_[index];
}

bool IcuZoneDatabase::hasKey(const std::string& key) const {
    return spelled(key).has_value();
}

std::optional<std::string> IcuZoneDatabase::spelled(const std::string& key) const {
    const auto found = std::find_if(keys_.begin(), keys_.end(),
                                    [&](const std::string& k) { return CORE::iequals(k, key); });
    if (found == keys_.end()) {
        return std::nullopt;
    }
    return *found;
}

std::optional<std::string> IcuZoneDatabase::text(const std::string& key,
                                                 const std::string& value) const {
    auto name = spelled(key);
    if (!name || value == "Std") {
        return name;
    }
    if (value != "Dlt") {
        return std::nullopt;
    }
    if (const auto at = name->find(kStandard); at != std::string::npos) {
        name->replace(at, kStandard.size(), kDaylight);
    }
    return name;
}

std::optional<ZoneRules> IcuZoneDatabase::rules(const std::string& key) const {
    const std::string zone = icuzones::zoneForKey(key);
    if (zone.empty()) {
        return std::nullopt;
    }
    return icuzones::currentRules(zone);
}

}  // namespace ndpx
