#pragma once
// The time zone of a Linux machine, or of a machine image under another root.
//
// A zone given by its key becomes the zone the key maps to. A zone with
// daylight saving switched off, and a zone given only by its offset, become a
// fixed-offset zone: Etc/GMT-1 and the like for whole hours, otherwise a zone
// compiled into `stateFolder` (whose folders must be readable by every user:
// every program reads the zone from there).
//
// Under the root "/" named zones are set through timedated; elsewhere, and
// for compiled zones, `etc/localtime` in the root is linked to the zone file
// and `etc/timezone` names the zone (or goes, for a compiled zone).

#include "timezone/ZoneSystem.h"

#include <filesystem>

namespace ndpx {

class LinuxZoneSystem : public ZoneSystem {
public:
    LinuxZoneSystem(std::filesystem::path root, std::filesystem::path stateFolder);

    bool hasDynamicZones() const override;
    std::optional<int> currentBias(std::string& error) const override;
    bool setDynamic(const ZoneSetting& zone, std::string& error) override;
    bool setClassic(const ZoneSetting& zone, std::string& error) override;

private:
    // A zone of the database by its name, or a compiled zone by its file.
    struct Target {
        std::string name;
        std::filesystem::path file;
    };

    std::optional<Target> named(const std::string& key, std::string& error) const;
    std::optional<Target> fixed(const ZoneRules& rules, std::string& error) const;
    bool install(const std::optional<Target>& target, std::string& error) const;
    bool link(const std::filesystem::path& file, const std::string& name, std::string& error) const;

    std::filesystem::path root_;
    std::filesystem::path stateFolder_;
};

}  // namespace ndpx
