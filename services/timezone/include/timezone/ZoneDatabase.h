#pragma once
// The desktop's time-zone database, laid out as Windows keeps it: one key per
// zone (its key name), each with a standard name ("Std"), a daylight name
// ("Dlt") and the zone's rules ("TZI").

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace ndpx {

// A date as Windows' SYSTEMTIME holds it. In a zone's rules the year is 0
// and the date recurs: `day` is the week of the month (1 to 4, 5 for the
// last) of the weekday `dayOfWeek` (0 Sunday); hour and minute are local wall
// time before the change. A zero month means no change.
struct ZoneDate {
    std::uint16_t year = 0;
    std::uint16_t month = 0;
    std::uint16_t dayOfWeek = 0;
    std::uint16_t day = 0;
    std::uint16_t hour = 0;
    std::uint16_t minute = 0;
    std::uint16_t second = 0;
    std::uint16_t milliseconds = 0;
};

// The "TZI" record. Biases are minutes with UTC = local time + bias, so a
// zone east of Greenwich has a negative bias.
struct ZoneRules {
    std::int32_t bias = 0;
    std::int32_t standardBias = 0;
    std::int32_t daylightBias = 0;
    ZoneDate standardDate;  // when daylight saving ends
    ZoneDate daylightDate;  // when it begins
};
static_assert(sizeof(ZoneRules) == 44, "the registry's TZI layout");

class ZoneDatabase {
public:
    virtual ~ZoneDatabase() = default;

    // Where the zones live, as the log lines name it.
    virtual std::string location() const = 0;
    // False when the database cannot be opened at all.
    virtual bool isOpen() const = 0;
    virtual std::optional<std::size_t> keyCount() const = 0;
    // The key names in enumeration order; nothing past the end or on failure.
    virtual std::optional<std::string> keyName(std::size_t index) const = 0;
    virtual bool hasKey(const std::string& key) const = 0;
    // The text values "Std" and "Dlt".
    virtual std::optional<std::string> text(const std::string& key,
                                            const std::string& value) const = 0;
    virtual std::optional<ZoneRules> rules(const std::string& key) const = 0;
};

}  // namespace ndpx
