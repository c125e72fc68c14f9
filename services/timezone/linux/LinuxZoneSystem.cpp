#include "timezone/linux/LinuxZoneSystem.h"

#include "ZoneBackendAccess.h"
#include "linux/FixedZone.h"

#include <mfw/corestring.h>
#include <platform/Paths.h>

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

namespace ndpx {
namespace {

namespace fs = std::filesystem;

constexpr const char* kZoneInfo = "/usr/share/zoneinfo";
constexpr const char* kTimedated = "org.freedesktop.timedate1";
constexpr int kMinutesPerHour = 60;
// The whole-hour zones of the database run from Etc/GMT+12 to Etc/GMT-14.
constexpr int kWestmostEtcHours = -12;
constexpr int kEastmostEtcHours = 14;

struct BusUnref {
    void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
};

// The name under which this machine's zone database has the zone: the
// library may know it by an older alias that the database keeps no more.
std::string installedName(const std::string& zone) {
    for (const auto& name : zonebackend::aliases(zone)) {
        std::error_code ec;
        if (fs::exists(fs::path(kZoneInfo) / name, ec)) {
            return name;
        }
    }
    return zone;
}

bool setThroughTimedated(const std::string& zone, std::string& error) {
    sd_bus* rawBus = nullptr;
    const int opened = ::sd_bus_open_system(&rawBus);
    if (opened < 0) {
        error = "system bus: " + std::system_category().message(-opened);
        return false;
    }
    const std::unique_ptr<sd_bus, BusUnref> bus(rawBus);
    sd_bus_error failure{};  // what SD_BUS_ERROR_NULL spells in C
    const int called =
        ::sd_bus_call_method(bus.get(), kTimedated, "/org/freedesktop/timedate1", kTimedated,
                             "SetTimezone", &failure, nullptr, "sb", zone.c_str(), 0);
    if (called < 0) {
        error =
            failure.message != nullptr ? failure.message : std::system_category().message(-called);
    }
    ::sd_bus_error_free(&failure);
    return called >= 0;
}

// A name of its own beside `path` for a file that is then renamed over it.
std::string tempBeside(const fs::path& path) {
    static std::atomic<unsigned> serial{0};
    return path.string() + ".tmp." + std::to_string(::getpid()) + "." +
           std::to_string(serial.fetch_add(1));
}

// Replaces the file at `path` with `text`, readable by all, in one step.
bool replaceFile(const fs::path& path, const std::string& text, std::string& error) {
    const fs::path temp = tempBeside(path);
    std::error_code ec;
    {
        std::ofstream out(temp, std::ios::trunc);
        out << text;
        if (!out.flush()) {
            ec = std::make_error_code(std::errc::io_error);
        }
    }
    if (!ec) {
        fs::permissions(temp, fs::perms(0644), ec);
    }
    if (!ec) {
        fs::rename(temp, path, ec);
    }
    if (ec) {
        error = "cannot write " + path.string() + ": " + ec.message();
        fs::remove(temp, ec);
        return false;
    }
    return true;
}

}  // namespace

LinuxZoneSystem::LinuxZoneSystem(fs::path root, fs::path stateFolder)
    : root_(std::move(root)), stateFolder_(std::move(stateFolder)) {}

bool LinuxZoneSystem::hasDynamicZones() const {
    return true;
}

std::optional<int> LinuxZoneSystem::currentBias(std::string& error) const {
    const fs::path localtime = root_ / "etc" / "localtime";
    std::error_code ec;
    const auto status = fs::symlink_status(localtime, ec);
    if (status.type() == fs::file_type::not_found) {
        return 0;  // no zone set: the C library keeps UTC
    }
    fs::path file = localtime;
    if (!ec && fs::is_symlink(status)) {
        const fs::path target = fs::read_symlink(localtime, ec);
        // A zone of the database is known by the name behind "zoneinfo/".
        const std::string text = target.string();
        constexpr std::string_view kMarker = "/zoneinfo/";
        if (const auto at = text.rfind(kMarker); at != std::string::npos) {
            if (const auto bias = zonebackend::standardBias(text.substr(at + kMarker.size()))) {
                return bias;
            }
        }
        file = target.is_absolute() ? target : localtime.parent_path() / target;
    }
    if (ec) {
        error = "cannot read " + localtime.string() + ": " + ec.message();
        return std::nullopt;
    }
    if (const auto offset = fixedzone::standardOffset(file)) {
        return -*offset / 60;
    }
    error = "cannot read the zone in " + file.string();
    return std::nullopt;
}

bool LinuxZoneSystem::setDynamic(const ZoneSetting& zone, std::string& error) {
    const bool fixedOffset = zone.daylightDisabled || zone.keyName.empty();
    return install(fixedOffset ? fixed(zone.rules, error) : named(zone.keyName, error), error);
}

bool LinuxZoneSystem::setClassic(const ZoneSetting& zone, std::string& error) {
    // The classic record has no key: a standard name that is a key's stands in.
    const bool known = !zonebackend::zoneForKey(zone.standardName).empty();
    return install(known ? named(zone.standardName, error) : fixed(zone.rules, error), error);
}

std::optional<LinuxZoneSystem::Target> LinuxZoneSystem::named(const std::string& key,
                                                              std::string& error) const {
    const std::string zone = zonebackend::zoneForKey(key);
    if (zone.empty()) {
        error = "no zone for the key " + key;
        return std::nullopt;
    }
    return Target{installedName(zone), {}};
}

std::optional<LinuxZoneSystem::Target> LinuxZoneSystem::fixed(const ZoneRules& rules,
                                                              std::string& error) const {
    const int offset = -(rules.bias + rules.standardBias);
    const int hours = offset / kMinutesPerHour;
    if (offset % kMinutesPerHour == 0 && hours >= kWestmostEtcHours && hours <= kEastmostEtcHours) {
        // The Etc zones count the other way: Etc/GMT-1 is an hour ahead of UTC.
        return Target{hours == 0 ? "Etc/UTC" : CORE::format("Etc/GMT%+d", -hours), {}};
    }
    auto file = fixedzone::compile(offset, stateFolder_, error);
    if (!file) {
        return std::nullopt;
    }
    return Target{{}, std::move(*file)};
}

bool LinuxZoneSystem::install(const std::optional<Target>& target, std::string& error) const {
    if (!target) {
        return false;
    }
    if (!target->file.empty()) {
        return link(target->file, {}, error);  // timedated takes names of the database only
    }
    if (root_.lexically_normal() == "/") {
        return setThroughTimedated(target->name, error);
    }
    return link(fs::path(kZoneInfo) / target->name, target->name, error);
}

bool LinuxZoneSystem::link(const fs::path& file, const std::string& name,
                           std::string& error) const {
    const fs::path etc = root_ / "etc";
    if (!platform::paths::createDirectories(etc, fs::perms(0755), error)) {
        return false;
    }
    const fs::path localtime = etc / "localtime";
    const fs::path temp = tempBeside(localtime);
    std::error_code ec;
    fs::create_symlink(file, temp, ec);
    if (!ec) {
        fs::rename(temp, localtime, ec);  // readers see the old zone or the new, never none
    }
    if (ec) {
        error = "cannot link " + localtime.string() + " to " + file.string() + ": " + ec.message();
        fs::remove(temp, ec);
        return false;
    }
    const fs::path timezone = etc / "timezone";
    if (!name.empty()) {
        return replaceFile(timezone, name + "\n", error);
    }
    // A compiled zone has no name in the database: a stale name would mislead.
    fs::remove(timezone, ec);
    if (ec) {
        error = "cannot remove " + timezone.string() + ": " + ec.message();
        return false;
    }
    return true;
}

}  // namespace ndpx
