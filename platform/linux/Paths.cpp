#include <platform/Paths.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

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
                error = "cannot set the mode of " + current.string() + ": " + std::strerror(errno);
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
                std::strerror(mkdirErrno == EEXIST ? ENOTDIR : mkdirErrno);
        return false;
    }
    return true;
}

bool writePrivateFile(const std::filesystem::path& path, const std::string& text,
                      std::string& error) {
    const std::string tmp = path.string() + ".tmp";
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    ::fchmod(fd, 0600);  // an old temporary file may have had other bits
    std::size_t done = 0;
    bool ok = true;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            ok = false;
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    ok = ok && ::fsync(fd) == 0;
    if (!ok) {
        error = std::strerror(errno);
    }
    ::close(fd);
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        if (ok) {
            error = std::strerror(errno);
        }
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace ndpx::platform::paths
