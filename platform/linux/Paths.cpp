#include <platform/Paths.h>

#include <sys/stat.h>

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
        if (::mkdir(current.c_str(), 0700) == 0) {
            // The umask may have taken bits away; the mode must be exactly 0700.
            if (::chmod(current.c_str(), 0700) != 0) {
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

}  // namespace ndpx::platform::paths
