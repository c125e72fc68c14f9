#pragma once
// The listening socket of an endpoint and its file. The folder is created
// when missing (with the parents missing too), each made 0755; the socket is
// made 0666, whatever the umask. A socket file that nobody listens on (left
// by a process that died) is replaced; any other file, or a socket in use,
// is refused. Closing removes the file, unless another listener has
// replaced it since.

#include <ipc/IpcTransport.h>
#include <platform/UniqueFd.h>

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <utility>

namespace ndpx::ipc::seqpacket {

class SocketEndpoint {
public:
    // Binds and listens at `dir`/`fileName`: status::kOk, or kFailed with
    // a log record.
    static int open(const std::filesystem::path& dir, const std::string& fileName,
                    const IpcLogSink& log, SocketEndpoint& out);

    SocketEndpoint() = default;
    ~SocketEndpoint() { close(); }
    SocketEndpoint(SocketEndpoint&& other) noexcept { *this = std::move(other); }
    SocketEndpoint& operator=(SocketEndpoint&& other) noexcept;
    SocketEndpoint(const SocketEndpoint&) = delete;
    SocketEndpoint& operator=(const SocketEndpoint&) = delete;

    int fd() const { return fd_.get(); }
    const std::filesystem::path& path() const { return path_; }
    // Closes the socket and removes its file; nothing when closed.
    void close();

private:
    platform::UniqueFd fd_;
    std::filesystem::path path_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace ndpx::ipc::seqpacket
