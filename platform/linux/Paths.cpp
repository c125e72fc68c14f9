#include <platform/Paths.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>

namespace ndpx::platform::paths {

namespace {

std::mutex& rootMutex() {
    static std::mutex m;
    return m;
}

std::filesystem::path& explicitRoot() {
    static std::filesystem::path p;
    return p;
}

std::error_code lastError() {
    return {errno, std::generic_category()};
}

}  // namespace

void setRoot(const std::filesystem::path& newRoot) {
    std::lock_guard lock(rootMutex());
    explicitRoot() = newRoot;
}

std::filesystem::path root() {
    {
        std::lock_guard lock(rootMutex());
        if (!explicitRoot().empty()) {
            return explicitRoot();
        }
    }
    if (const char* env = std::getenv("NDPX_ROOT"); env != nullptr && *env != '\0') {
        return std::filesystem::path(env);
    }
    return std::filesystem::path("/");
}

std::filesystem::path programData() {
    return root() / "var" / "lib";
}
std::filesystem::path systemDrive() {
    return root();
}
std::filesystem::path vendorDataDir() {
    return programData() / "Brasswick";
}
std::filesystem::path settingsStoreFile() {
    return vendorDataDir() / "registry.sqlite";
}
std::filesystem::path certStoreFile() {
    return vendorDataDir() / "certstore.sqlite";
}
std::filesystem::path runDir() {
    return root() / "run" / "Brasswick";
}

std::filesystem::path controlSocketFile() {
    return runDir() / "agentctl.sock";
}

bool createSecureDirectories(const std::filesystem::path& dir, std::string& error) {
    return createDirectories(dir, std::filesystem::perms::owner_all, error);
}

bool createDirectories(const std::filesystem::path& dir, std::filesystem::perms mode,
                       std::string& error) {
    const auto bits = static_cast<mode_t>(mode);
    if (dir.empty()) {
        error = "empty directory path";
        return false;
    }
    std::filesystem::path current;
    for (const auto& part : dir) {
        current /= part;
        if (part.empty() || part == "." || part == "..") {
            continue;
        }
        if (::mkdir(current.c_str(), bits) == 0) {
            // The umask may have taken bits away; the mode must be exact.
            if (::chmod(current.c_str(), bits) != 0) {
                error = "cannot set the mode of " + current.string() + ": " +
                        std::generic_category().message(errno);
                return false;
            }
            continue;
        }
        const int mkdirErrno = errno;
        struct stat st {};
        if (::stat(current.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            continue;
        }
        error = "cannot create directory " + current.string() + ": " +
                std::generic_category().message(mkdirErrno == EEXIST ? ENOTDIR : mkdirErrno);
        return false;
    }
    return true;
}

bool writePrivateFile(const std::filesystem::path& path, const std::string& text,
                      std::string& error, WriteStep* failedStep) {
    std::string tmp = path.string() + ".XXXXXX";
    // mkostemp: mode 0600 whatever the umask, and a name no other writer uses.
    UniqueFd fd(::mkostemp(tmp.data(), O_CLOEXEC));
    if (!fd) {
        error = std::generic_category().message(errno);
        if (failedStep != nullptr) {
            *failedStep = WriteStep::Create;
        }
        return false;
    }
    int err = 0;
    for (std::size_t done = 0; done < text.size() && err == 0;) {
        const ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno != EINTR) {
                err = errno;
            }
            continue;
        }
        done += static_cast<std::size_t>(n);
    }
    if (err == 0 && ::fsync(fd.get()) != 0) {
        err = errno;
    }
    if (::close(fd.release()) != 0 && err == 0) {
        err = errno;
    }
    if (err == 0 && ::rename(tmp.c_str(), path.c_str()) != 0) {
        err = errno;
    }
    if (err != 0) {
        ::unlink(tmp.c_str());
        error = std::generic_category().message(err);
        if (failedStep != nullptr) {
            *failedStep = WriteStep::Write;
        }
        return false;
    }
    return true;
}

FileRemoval removeFile(const std::filesystem::path& path) {
    FileRemoval result;
    struct stat st {};
    // lstat: a link is removed as a link; its target's mode is not ours to change.
    if (::lstat(path.c_str(), &st) != 0) {
        result.attributes = lastError();
    } else if (S_ISREG(st.st_mode) && (st.st_mode & S_IWUSR) == 0) {
        // A file without the owner's write bit is this system's read-only file.
        if (::chmod(path.c_str(), (st.st_mode & 07777) | S_IWUSR) != 0) {
            result.writable = lastError();
        }
    }
    if (::unlink(path.c_str()) != 0) {
        result.removed = lastError();
    }
    return result;
}

}  // namespace ndpx::platform::paths
