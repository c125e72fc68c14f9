#include <platform/SecureFile.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ndpx::platform {
namespace {

SecureFile failure(SecureFileError error, int err) {
    SecureFile result;
    result.error = error;
    result.cause = std::error_code(err, std::generic_category());
    return result;
}

bool trusted(const struct stat& info, FileOwner owner) {
    if (owner == FileOwner::Anyone) {
        return true;
    }
    const uid_t uid = owner == FileOwner::LocalSystem ? 0 : ::geteuid();
    // Anyone else who may write the file could choose its content.
    return info.st_uid == uid && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens and judges the file; `fd` stays open for the reader.
SecureFile openChecked(const std::filesystem::path& path, FileOwner owner, UniqueFd& fd,
                       struct stat& info) {
    // O_NOFOLLOW: a link planted at the path is refused, not followed.
    // O_NONBLOCK: a FIFO planted there must not hang the caller.
    fd.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW));
    if (!fd) {
        return failure(SecureFileError::CannotOpen, errno);
    }
    if (::fstat(fd.get(), &info) != 0) {
        return failure(SecureFileError::NoSecurityInfo, errno);
    }
    // A directory opens for reading too.
    if (!S_ISREG(info.st_mode)) {
        return failure(SecureFileError::NotARegularFile,
                       S_ISDIR(info.st_mode) ? EISDIR : EOPNOTSUPP);
    }
    if (!trusted(info, owner)) {
        return failure(SecureFileError::UntrustedOwner, EPERM);
    }
    return {};
}

}  // namespace

SecureFile checkSecureFile(const std::filesystem::path& path, FileOwner owner) {
    UniqueFd fd;
    struct stat info {};
    return openChecked(path, owner, fd, info);
}

SecureFile readSecureFile(const std::filesystem::path& path, FileOwner owner,
                          std::size_t maxBytes) {
    UniqueFd fd;
    struct stat info {};
    SecureFile result = openChecked(path, owner, fd, info);
    if (!result.ok()) {
        return result;
    }
    if (static_cast<std::size_t>(info.st_size) > maxBytes) {
        return failure(SecureFileError::TooLarge, EFBIG);
    }
    // The size may change while we read: the bound holds for what is read.
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return failure(SecureFileError::ReadFailed, errno);
        }
        if (n == 0) {
            return result;
        }
        if (result.text.size() + static_cast<std::size_t>(n) > maxBytes) {
            return failure(SecureFileError::TooLarge, EFBIG);
        }
        result.text.append(buffer, static_cast<std::size_t>(n));
    }
}

}  // namespace ndpx::platform
