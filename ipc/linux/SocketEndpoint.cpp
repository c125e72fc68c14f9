#include "SocketEndpoint.h"

#include "IpcLog.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace ndpx::ipc::seqpacket {
namespace {

constexpr const char* kFunction = "SocketEndpoint::open";
constexpr mode_t kFolderMode = 0755;
constexpr mode_t kSocketMode = 0666;
constexpr int kBacklog = 64;

// Creates `dir` and the parents it lacks, each 0755, and sets `dir` 0755.
bool makeFolder(const std::filesystem::path& dir, const IpcLogSink& log) {
    std::vector<std::filesystem::path> missing;
    struct stat st {};
    for (auto folder = dir; !folder.empty(); folder = folder.parent_path()) {
        if (::stat(folder.c_str(), &st) == 0) {
            break;
        }
        missing.push_back(folder);
        if (folder == folder.parent_path()) {
            break;
        }
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        if (::mkdir(it->c_str(), kFolderMode) != 0 && errno != EEXIST) {
            writeLog(log, level::kError, kFunction,
                     "cannot create " + it->string() + ": " + errnoText(errno));
            return false;
        }
        // The umask narrowed the mode mkdir gave.
        if (::chmod(it->c_str(), kFolderMode) != 0) {
            writeLog(log, level::kError, kFunction,
                     "cannot set the mode of " + it->string() + ": " + errnoText(errno));
            return false;
        }
    }
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        writeLog(log, level::kError, kFunction, dir.string() + " is not a folder");
        return false;
    }
    if ((st.st_mode & 07777) != kFolderMode && ::chmod(dir.c_str(), kFolderMode) != 0) {
        writeLog(log, level::kError, kFunction,
                 "cannot set the mode of " + dir.string() + ": " + errnoText(errno));
        return false;
    }
    return true;
}

enum class Probe { Listening, Stale, Unknown };

// Whether a listener answers at the socket file `address` names.
Probe probe(const sockaddr_un& address, int& error) {
    const platform::UniqueFd fd(
        ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        error = errno;
        return Probe::Unknown;
    }
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return Probe::Listening;
    }
    error = errno;
    switch (error) {
        case ECONNREFUSED:
            return Probe::Stale;
        case EAGAIN:      // a listener with a full backlog
        case EPROTOTYPE:  // a listener of another socket type
            return Probe::Listening;
        default:
            return Probe::Unknown;
    }
}

// Removes a socket file nobody listens on; false (logged) when `path` holds
// anything else.
bool clearPath(const std::filesystem::path& path, const sockaddr_un& address,
               const IpcLogSink& log) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        writeLog(log, level::kError, kFunction, path.string() + ": " + errnoText(errno));
        return false;
    }
    if (!S_ISSOCK(st.st_mode)) {
        writeLog(log, level::kError, kFunction,
                 path.string() + " exists and is not a socket; not replacing it");
        return false;
    }
    int error = 0;
    switch (probe(address, error)) {
        case Probe::Listening:
            writeLog(log, level::kError, kFunction,
                     path.string() + " is in use by another listener");
            return false;
        case Probe::Unknown:
            writeLog(log, level::kError, kFunction,
                     "cannot tell whether " + path.string() + " is in use: " + errnoText(error));
            return false;
        case Probe::Stale:
            break;
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        writeLog(log, level::kError, kFunction,
                 "cannot remove the stale socket " + path.string() + ": " + errnoText(errno));
        return false;
    }
    writeLog(log, level::kInformation, kFunction,
             "replaced the stale socket file " + path.string());
    return true;
}

}  // namespace

int SocketEndpoint::open(const std::filesystem::path& dir, const std::string& fileName,
                         const IpcLogSink& log, SocketEndpoint& out) {
    if (!makeFolder(dir, log)) {
        return status::kFailed;
    }
    const std::filesystem::path path = dir / fileName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string text = path.string();
    if (text.size() >= sizeof address.sun_path) {
        writeLog(log, level::kError, kFunction, "socket path too long: " + text);
        return status::kFailed;
    }
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    if (!clearPath(path, address, log)) {
        return status::kFailed;
    }

    SocketEndpoint endpoint;
    endpoint.fd_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!endpoint.fd_) {
        writeLog(log, level::kError, kFunction, "socket: " + errnoText(errno));
        return status::kFailed;
    }
    if (::bind(endpoint.fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
        0) {
        writeLog(log, level::kError, kFunction, "bind " + text + ": " + errnoText(errno));
        return status::kFailed;
    }
    // From here the endpoint owns the file and its close removes it.
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        endpoint.path_ = path;
        endpoint.device_ = st.st_dev;
        endpoint.inode_ = st.st_ino;
    }
    // Nobody can connect before listen(), so the mode is right in time.
    if (::chmod(path.c_str(), kSocketMode) != 0 || ::listen(endpoint.fd_.get(), kBacklog) != 0) {
        writeLog(log, level::kError, kFunction, text + ": " + errnoText(errno));
        return status::kFailed;
    }
    out = std::move(endpoint);
    return status::kOk;
}

SocketEndpoint& SocketEndpoint::operator=(SocketEndpoint&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::move(other.fd_);
        path_ = std::move(other.path_);
        device_ = other.device_;
        inode_ = other.inode_;
        other.path_.clear();
    }
    return *this;
}

void SocketEndpoint::close() {
    if (!path_.empty()) {
        struct stat st {};
        if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == device_ && st.st_ino == inode_) {
            ::unlink(path_.c_str());
        }
        path_.clear();
    }
    fd_.reset();
}

}  // namespace ndpx::ipc::seqpacket
