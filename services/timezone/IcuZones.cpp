#include "IcuZones.h"

#include <mfw/corestring.h>

#include <unicode/basictz.h>
#include <unicode/calendar.h>
#include <unicode/dtrule.h>
#include <unicode/strenum.h>
#include <unicode/timezone.h>
#include <unicode/tzrule.h>

#include <algorithm>
#include <memory>
#include <set>

namespace ndpx::icuzones {
namespace {

constexpr int kMillisPerMinute = 60 * 1000;
constexpr int kMillisPerDay = 24 * 60 * kMillisPerMinute;
constexpr int kLastWeek = 5;  // how a zone date says "the last such weekday"

std::string utf8(const icu::UnicodeString& text) {
    std::string out;
    return text.toUTF8String(out);
}

std::unique_ptr<icu::TimeZone> loadZone(const std::string& zone) {
    std::unique_ptr<icu::TimeZone> tz(
        icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone)));
    if (!tz || *tz == icu::TimeZone::getUnknown()) {
        return nullptr;
    }
    return tz;
}

std::vector<std::string> collectKeys() {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::StringEnumeration> ids(icu::TimeZone::createEnumeration(status));
    std::set<std::string> keys;
    while (U_SUCCESS(status) && ids) {
        const icu::UnicodeString* id = ids->snext(status);
        if (id == nullptr) {
            break;
        }
        icu::UnicodeString key;
        UErrorCode found = U_ZERO_ERROR;
        icu::TimeZone::getWindowsID(*id, key, found);
        if (U_SUCCESS(found) && !key.isEmpty()) {
            keys.insert(utf8(key));
        }
    }
    std::vector<std::string> sorted(keys.begin(), keys.end());
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        return CORE::toLowerAscii(a) < CORE::toLowerAscii(b);
    });
    return sorted;
}

// A rule's change as a zone date: wall time before the change.
// `savingsBefore` is the daylight saving in force until then.
ZoneDate zoneDate(const icu::AnnualTimeZoneRule& rule, int rawOffset, int savingsBefore) {
    const icu::DateTimeRule& when = *rule.getRule();
    ZoneDate date;
    date.month = static_cast<std::uint16_t>(when.getRuleMonth() + 1);
    date.dayOfWeek = static_cast<std::uint16_t>(std::max(0, when.getRuleDayOfWeek() - 1));
    // Rules near a date always come as "n-th weekday of the month", -1 the last.
    const int week = when.getRuleWeekInMonth();
    date.day = static_cast<std::uint16_t>(week < 0 ? kLastWeek : std::min(week, kLastWeek));
    int millis = when.getRuleMillisInDay();
    if (when.getTimeRuleType() == icu::DateTimeRule::UTC_TIME) {
        millis += rawOffset + savingsBefore;
    } else if (when.getTimeRuleType() == icu::DateTimeRule::STANDARD_TIME) {
        millis += savingsBefore;
    }
    millis = ((millis % kMillisPerDay) + kMillisPerDay) % kMillisPerDay;
    date.hour = static_cast<std::uint16_t>(millis / (60 * kMillisPerMinute));
    date.minute = static_cast<std::uint16_t>(millis / kMillisPerMinute % 60);
    date.second = static_cast<std::uint16_t>(millis / 1000 % 60);
    return date;
}

}  // namespace

const std::vector<std::string>& windowsKeys() {
    static const std::vector<std::string> keys = collectKeys();
    return keys;
}

std::string zoneForKey(const std::string& key) {
    const auto& keys = windowsKeys();
    const auto known = std::find_if(keys.begin(), keys.end(),
                                    [&](const std::string& k) { return CORE::iequals(k, key); });
    if (known == keys.end()) {
        return {};
    }
    icu::UnicodeString zone;
    UErrorCode status = U_ZERO_ERROR;
    icu::TimeZone::getIDForWindowsID(icu::UnicodeString::fromUTF8(*known), nullptr, zone, status);
    return U_SUCCESS(status) ? utf8(zone) : std::string();
}

std::vector<std::string> aliases(const std::string& zone) {
    std::vector<std::string> names{zone};
    const icu::UnicodeString id = icu::UnicodeString::fromUTF8(zone);
    const int32_t count = icu::TimeZone::countEquivalentIDs(id);
    for (int32_t i = 0; i < count; ++i) {
        std::string alias = utf8(icu::TimeZone::getEquivalentID(id, i));
        if (alias != zone) {
            names.push_back(std::move(alias));
        }
    }
    return names;
}

std::optional<int> standardBias(const std::string& zone) {
    const auto tz = loadZone(zone);
    if (!tz) {
        return std::nullopt;
    }
    return -tz->getRawOffset() / kMillisPerMinute;
}

std::optional<ZoneRules> currentRules(const std::string& zone) {
    const auto tz = loadZone(zone);
    const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(tz.get());
    if (basic == nullptr) {
        return std::nullopt;
    }
    icu::InitialTimeZoneRule* initial = nullptr;
    icu::AnnualTimeZoneRule* standard = nullptr;
    icu::AnnualTimeZoneRule* daylight = nullptr;
    UErrorCode status = U_ZERO_ERROR;
    basic->getSimpleRulesNear(icu::Calendar::getNow(), initial, standard, daylight, status);
    const std::unique_ptr<icu::InitialTimeZoneRule> ownInitial(initial);
    const std::unique_ptr<icu::AnnualTimeZoneRule> ownStandard(standard);
    const std::unique_ptr<icu::AnnualTimeZoneRule> ownDaylight(daylight);
    if (U_FAILURE(status) || !initial) {
        return std::nullopt;
    }
    ZoneRules rules;
    const int rawOffset = initial->getRawOffset();
    rules.bias = -rawOffset / kMillisPerMinute;
    if (standard && daylight) {
        const int savings = daylight->getDSTSavings();
        rules.daylightBias = -savings / kMillisPerMinute;
        rules.standardDate = zoneDate(*standard, rawOffset, savings);
        rules.daylightDate = zoneDate(*daylight, rawOffset, 0);
    }
    return rules;
}

}  // namespace ndpx::icuzones
