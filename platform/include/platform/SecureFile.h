#pragma once
// Reading a file whose content is trusted (provisioning data). The file is
// opened without following a link at its path, and its type, owner and
// access are judged on the open file, so what was checked is what is read,
// even if the path is swapped meanwhile.

#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>

namespace ndpx::platform {

// Who must own a file for it to be trusted. With an owner rule, nobody but
// the owner may be able to write the file either.
enum class FileOwner {
    Anyone,       // no owner rule
    LocalSystem,  // the system account
    CurrentUser,  // the account this process runs as
};

enum class SecureFileError {
    None,
    CannotOpen,       // absent, a link, or not accessible
    NoSecurityInfo,   // its owner and access could not be read
    NotARegularFile,  // a directory, a device, a pipe
    UntrustedOwner,   // another owner, or others may write it
    TooLarge,
    ReadFailed,
};

struct SecureFile {
    SecureFileError error = SecureFileError::None;
    std::error_code cause;  // the system's reason, for a log line
    std::string text;       // the content, when it was read
    bool ok() const { return error == SecureFileError::None; }
};

// Opens `path` and judges it by `owner`; reads nothing.
SecureFile checkSecureFile(const std::filesystem::path& path, FileOwner owner);

// As checkSecureFile, then reads the whole file; more than `maxBytes` is
// TooLarge.
SecureFile readSecureFile(const std::filesystem::path& path, FileOwner owner, std::size_t maxBytes);

}  // namespace ndpx::platform
