#pragma once
// The zone database derived from the ICU library's data: the Windows zone
// keys it maps to zones, each zone's standard name, daylight name and rules
// as they stand now. "Std" is the key itself; "Dlt" is the key with
// "Standard" changed to "Daylight".

#include "timezone/ZoneDatabase.h"

#include <string>
#include <vector>

namespace ndpx {

class IcuZoneDatabase : public ZoneDatabase {
public:
    IcuZoneDatabase();

    std::string location() const override;
    bool isOpen() const override;
    std::optional<std::size_t> keyCount() const override;
    std::optional<std::string> keyName(std::size_t index) const override;
    bool hasKey(const std::string& key) const override;
    std::optional<std::string> text(const std::string& key,
                                    const std::string& value) const override;
    std::optional<ZoneRules> rules(const std::string& key) const override;

private:
    // The key as the database spells it (keys are found whatever their case).
    std::optional<std::string> spelled(const std::string& key) const;

    const std::vector<std::string>& keys_;
};

}  // namespace ndpx
