#include "timezone/SystemTimeZone.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>

#include <climits>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

namespace ndpx {
namespace {

// The lengths of the name fields in the system's zone records.
constexpr std::size_t kNameChars = 32;
constexpr std::size_t kKeyNameChars = 128;

std::string clip(const std::string& text, std::size_t chars) {
    const std::wstring wide = CORE::toWide(text);
    return wide.size() <= chars ? text : CORE::toUtf8(wide.substr(0, chars));
}

std::string trim(const std::string& text) {
    constexpr const char* kBlanks = " \t\r\n";
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (auto at = text.find(separator); at != std::string::npos;
         at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    parts.push_back(text.substr(start));
    return parts;
}

// A leading decimal number, as the C library reads one: a sign counts, text
// that is not a number reads as 0, and a huge number stops at the int range.
int leadingInt(const std::string& text) {
    const long value = std::strtol(text.c_str(), nullptr, 10);
    if (value > INT_MAX) {
        return INT_MAX;
    }
    return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

}  // namespace

SystemTimeZone::SystemTimeZone(std::unique_ptr<ZoneDatabase> database,
                               std::unique_ptr<ZoneSystem> system)
    : database_(std::move(database)), system_(std::move(system)) {}

SystemTimeZone::SystemTimeZone() = default;
SystemTimeZone::~SystemTimeZone() = default;

bool SystemTimeZone::SetTimeZone(const std::string& name, bool dayLightDisabled,
                                 const std::string& offset) {
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::SetTimeZone(): tzTimeZoneName = %s, bDayLightDisabled = %d, "
            "tzTimezoneOffset=%s",
            name.c_str(), dayLightDisabled ? 1 : 0, offset.c_str());
    if (!name.empty()) {
        MFW_LOG(CORE::kLogDebug,
                "SystemTimeZone::SetTimeFromStandardName(): tzTimeZoneName=%s bDayLightDisabled=%d",
                name.c_str(), dayLightDisabled ? 1 : 0);
        const auto found = FindTimeZoneInRegistry(name);
        return found && apply(name, *found, dayLightDisabled);
    }
    if (!offset.empty()) {
        MFW_LOG(CORE::kLogDebug, "SystemTimeZone::SetTimeFromOffset(): tzTimezoneOffset=%s",
                offset.c_str());
        const auto bias = GetTzOffset(offset);
        if (!bias) {
            return false;
        }
        Found zone;
        zone.rules.bias = *bias;
        return apply({}, zone, false);
    }
    MFW_LOG(CORE::kLogWarning,
            "SystemTimeZone::SetTimeZone(): tzTimeZoneName & tzTimezoneOffset are empty");
    return false;
}

std::optional<SystemTimeZone::Found> SystemTimeZone::FindTimeZoneInRegistry(
    const std::string& name) const {
    Found zone;
    if (database_->hasKey(name)) {
        MFW_LOG(CORE::kLogDebug,
                "SystemTimeZone::FindTimeZoneInRegistry(): Key %s found in registry.",
                name.c_str());
        zone.keyName = name;
    } else {
        MFW_LOG(CORE::kLogDebug,
                "SystemTimeZone::FindTimeZoneInRegistry(): timezone %s not found, looking for any "
                "std match",
                name.c_str());
        auto match = FindStdTimezoneInRegistry(name);
        if (!match) {
            MFW_LOG(CORE::kLogError,
                    "SystemTimeZone::FindTimeZoneInRegistry(): No match found for std for %s in "
                    "registry.",
                    name.c_str());
            return std::nullopt;
        }
        if (!database_->hasKey(*match)) {
            MFW_LOG(CORE::kLogError,
                    "SystemTimeZone::FindTimeZoneInRegistry(): foundTimeZoneRegKey is NULL.");
            return std::nullopt;
        }
        zone.keyName = std::move(*match);
    }
    if (auto daylight = database_->text(zone.keyName, "Dlt")) {
        zone.daylightName = std::move(*daylight);
        MFW_LOG(CORE::kLogDebug, "SystemTimeZone::FindTimeZoneInRegistry(): DltName found = %s.",
                zone.daylightName.c_str());
    }
    const auto rules = database_->rules(zone.keyName);
    if (!rules) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::FindTimeZoneInRegistry(): Timezone TZI not available in registry "
                "for %s.",
                zone.keyName.c_str());
        return std::nullopt;
    }
    zone.rules = *rules;
    return zone;
}

std::optional<std::string> SystemTimeZone::FindStdTimezoneInRegistry(
    const std::string& name) const {
    const std::string where = database_->location();
    try {
        if (!database_->isOpen()) {
            MFW_LOG(CORE::kLogError,
                    "SystemTimeZone::FindStdTimezoneInRegistry(): Unable to open registry %s.",
                    where.c_str());
            return std::nullopt;
        }
        const auto count = database_->keyCount();
        if (!count) {
            MFW_LOG(CORE::kLogError,
                    "SystemTimeZone::FindStdTimezoneInRegistry(): Unable to query key count and "
                    "size for: %s",
                    where.c_str());
            return std::nullopt;
        }
        // A key that cannot be read is passed over: a later one may still match.
        for (std::size_t i = 0; i < *count; ++i) {
            auto key = database_->keyName(i);
            if (!key) {
                MFW_LOG(CORE::kLogError,
                        "SystemTimeZone::FindStdTimezoneInRegistry(): Unable to enumerate subkey "
                        "number %d for: %s.",
                        static_cast<int>(i), where.c_str());
                continue;
            }
            if (!database_->hasKey(*key)) {
                MFW_LOG(CORE::kLogError,
                        "SystemTimeZone::FindStdTimezoneInRegistry(): Unable to read timezone "
                        "subkey: %s",
                        key->c_str());
                continue;
            }
            const auto standard = database_->text(*key, "Std");
            if (!standard) {
                MFW_LOG(CORE::kLogError,
                        "SystemTimeZone::FindStdTimezoneInRegistry(): Unable to read timezone "
                        "subkey \"Std\" value for: %s",
                        key->c_str());
                continue;
            }
            if (*standard == name) {
                MFW_LOG(CORE::kLogDebug,
                        "SystemTimeZone::FindStdTimezoneInRegistry(): Found matching standard "
                        "timezone: %s",
                        key->c_str());
                return key;
            }
        }
    } catch (const std::bad_alloc&) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::FindStdTimezoneInRegistry(): Failed to allocate key name buffer. "
                "Out of memory.");
    }
    return std::nullopt;
}

std::optional<int> SystemTimeZone::GetTzOffset(const std::string& offset) const {
    std::string text = trim(offset);
    // The minus sign is expected in front; a '-' anywhere makes the offset
    // negative and costs the first character.
    const bool negative = text.find('-') != std::string::npos;
    if (negative) {
        text.erase(0, 1);
    }
    const auto parts = split(text, ':');
    if (parts.size() != 2) {
        MFW_LOG(CORE::kLogWarning, "SystemTimeZone::GetTzOffset(): Invalid input %s for tzOffset.",
                offset.c_str());
        return std::nullopt;
    }
    const int hours = leadingInt(parts[0]);
    const int minutes = leadingInt(parts[1]);
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::GetTzOffset(): Time offset of client from GMT. Hour = %d minute = %d",
            hours, minutes);
    long long offsetMinutes = hours * 60LL + minutes;
    if (negative) {
        offsetMinutes = -offsetMinutes;
    }
    if (offsetMinutes == 0) {
        // UTC itself is not set by its offset.
        MFW_LOG(CORE::kLogWarning,
                "SystemTimeZone::GetTzOffset(): Invalid input, timeOffsetMin = 0.");
        return std::nullopt;
    }
    if (offsetMinutes > INT_MAX || offsetMinutes < -INT_MAX) {
        MFW_LOG(CORE::kLogWarning, "SystemTimeZone::GetTzOffset(): Invalid input %s for tzOffset.",
                offset.c_str());
        return std::nullopt;
    }
    const int bias = static_cast<int>(-offsetMinutes);
    MFW_LOG(CORE::kLogDebug, "SystemTimeZone::GetTzOffset(): The client bias is = %d", bias);
    std::string error;
    const auto current = system_->currentBias(error);
    if (!current) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::GetTzOffset(): GetTimeZoneInformation failed, error = %s",
                error.c_str());
        return std::nullopt;
    }
    if (*current == bias) {
        // Nothing to change, yet the caller hears of a failure: it reports it.
        MFW_LOG(CORE::kLogDebug,
                "SystemTimeZone::GetTzOffset(): No need to update the time, with offset %s",
                offset.c_str());
        return std::nullopt;
    }
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::GetTzOffset(): Time need to be updated, currentbias = %d", *current);
    return bias;
}

bool SystemTimeZone::GetFunctionPointers() const {
    return system_->hasDynamicZones();
}

bool SystemTimeZone::apply(const std::string& name, const Found& zone, bool dayLightDisabled) {
    return CallSetDynamicTimeZoneInfo(name, zone, dayLightDisabled) ||
           CallSetTimeZoneInfo(name, zone);
}

bool SystemTimeZone::CallSetDynamicTimeZoneInfo(const std::string& name, const Found& zone,
                                                bool dayLightDisabled) {
    if (!GetFunctionPointers()) {
        return false;
    }
    ZoneSetting setting;
    setting.rules = zone.rules;
    setting.standardName = clip(name, kNameChars);
    setting.keyName = clip(zone.keyName, kKeyNameChars);
    setting.daylightName = clip(zone.daylightName, kNameChars);
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::CallSetDynamicTimeZoneInfo(): StandardName = %s, TimeZoneKeyName = "
            "%s, DaylightName = %s",
            setting.standardName.c_str(), setting.keyName.c_str(), setting.daylightName.c_str());
    setting.daylightDisabled = dayLightDisabled;
    if (dayLightDisabled) {
        setting.rules.standardDate = {};
        setting.rules.daylightDate = {};
        MFW_LOG(CORE::kLogVerbose,
                "SystemTimeZone::CallSetDynamicTimeZoneInfo(): Set StandardDate & DaylightDate     "
                "     to NULL as DaylightSaving is disabled.");
    }
    return CallSetDynamicTimeZoneInfoApi(setting);
}

bool SystemTimeZone::CallSetDynamicTimeZoneInfoApi(const ZoneSetting& setting) {
    std::string error;
    if (!system_->setDynamic(setting, error)) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::CallSetDynamicTimeZoneInfoApi(): SetDynamicTimeZoneInformation "
                "Api failed, error = %s",
                error.c_str());
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::CallSetDynamicTimeZoneInfoApi(): SetDynamicTimeZoneInformation "
            "succeeded, Timezone set to %s",
            setting.keyName.c_str());
    return true;
}

bool SystemTimeZone::CallSetTimeZoneInfo(const std::string& name, const Found& zone) {
    std::string error;
    if (!system_->currentBias(error)) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::CallSetTimeZoneInfo(): GetTimeZoneInformation api failed, error = "
                "%s",
                error.c_str());
        return false;
    }
    // The classic record keeps the zone's dates even when daylight saving
    // was to be switched off: only the dynamic way can switch it off.
    ZoneSetting setting;
    setting.rules = zone.rules;
    setting.standardName = clip(name, kNameChars);
    setting.daylightName = clip(zone.daylightName, kNameChars);
    return CallSetTimeZoneInfoApi(setting);
}

bool SystemTimeZone::CallSetTimeZoneInfoApi(const ZoneSetting& setting) {
    std::string error;
    if (!system_->setClassic(setting, error)) {
        MFW_LOG(CORE::kLogError,
                "SystemTimeZone::CallSetTimeZoneInfoApi(): SetTimeZoneInformation api failed, "
                "error = %s",
                error.c_str());
        return false;
    }
    MFW_LOG(CORE::kLogDebug,
            "SystemTimeZone::CallSetTimeZoneInfoApi(): SetTimeZoneInformation Api Succeeded");
    return true;
}

}  // namespace ndpx
