#pragma once
// Zones of a fixed UTC offset that the zone database does not carry (such as
// 5:30 behind UTC), compiled with the system's zone compiler, and the offset
// read back from a compiled zone file.

#include <filesystem>
#include <optional>
#include <string>

namespace ndpx::fixedzone {

// Compiles a zone `offsetMinutes` ahead of UTC into `folder` and returns its
// file; nothing, with `error`, when that fails.
std::optional<std::filesystem::path> compile(int offsetMinutes, const std::filesystem::path& folder,
                                             std::string& error);

// The standard UTC offset, in seconds, of the zone file at `file` (the
// binary format of the zone database): the latest one the file records.
std::optional<int> standardOffset(const std::filesystem::path& file);

}  // namespace ndpx::fixedzone
