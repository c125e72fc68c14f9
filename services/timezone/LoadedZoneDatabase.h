#pragma once
// The zone database of the backend ndpx_zones.so, opened on the first call.
// When the backend cannot be opened the database is closed: it has no keys
// and location() says why, so a zone asked for by name is refused with that
// reason (a zone given as an offset needs no database).

#include "timezone/ZoneDatabase.h"

namespace ndpx {

class LoadedZoneDatabase : public ZoneDatabase {
public:
    std::string location() const override;
    bool isOpen() const override;
    std::optional<std::size_t> keyCount() const override;
    std::optional<std::string> keyName(std::size_t index) const override;
    bool hasKey(const std::string& key) const override;
    std::optional<std::string> text(const std::string& key,
                                    const std::string& value) const override;
    std::optional<ZoneRules> rules(const std::string& key) const override;
};

}  // namespace ndpx
