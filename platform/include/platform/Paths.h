#pragma once
// Machine paths relocated under one root prefix, so that the agent, its tests
// and the demo can run unprivileged in a temporary directory.

#include <filesystem>
#include <string>
#include <system_error>

namespace ndpx::platform::paths {

// The root prefix: set by the host's --root flag, else $NDPX_ROOT, else "/".
void setRoot(const std::filesystem::path& root);
std::filesystem::path root();

std::filesystem::path programData();        // $ROOT/var/lib
std::filesystem::path systemDrive();        // $ROOT
std::filesystem::path vendorDataDir();      // $ROOT/var/lib/Brasswick
std::filesystem::path settingsStoreFile();  // .../Brasswick/registry.sqlite
std::filesystem::path certStoreFile();      // .../Brasswick/certstore.sqlite
std::filesystem::path runDir();             // $ROOT/run/Brasswick
std::filesystem::path controlSocketFile();  // .../Brasswick/agentctl.sock

// Creates `dir` and its missing parents with exactly `mode`, whatever the
// process's umask. An existing directory is accepted as it is. Returns false
// (and sets `error`) on failure.
bool createDirectories(const std::filesystem::path& dir, std::filesystem::perms mode,
                       std::string& error);
// The same with mode 0700.
bool createSecureDirectories(const std::filesystem::path& dir, std::string& error);

// Where writePrivateFile failed: making its temporary file, or writing,
// flushing and renaming it into place.
enum class WriteStep { Create, Write };

// Writes `text` to `path` with mode 0600, atomically (a temporary file of its
// own in the same directory, flushed, then renamed over the old one).
bool writePrivateFile(const std::filesystem::path& path, const std::string& text,
                      std::string& error, WriteStep* failedStep = nullptr);

// What removeFile met on its way. A read-only file is made writable before
// it is removed, as some systems require; a failure of those first steps is
// reported but does not stop the removal.
struct FileRemoval {
    std::error_code attributes;  // the attributes could not be read
    std::error_code writable;    // the file stayed read-only
    std::error_code removed;     // the removal itself failed (none: removed)
};
// Removes the file at `path`; a link is removed as a link.
FileRemoval removeFile(const std::filesystem::path& path);

}  // namespace ndpx::platform::paths
