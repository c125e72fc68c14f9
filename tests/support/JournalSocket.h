#pragma once
// A stand-in for the journal: a Unix datagram socket bound in a directory of
// the test's, and the entries sent to it, decoded.

#include <platform/UniqueFd.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace ndpx::test {

class JournalSocket {
public:
    using Entry = std::map<std::string, std::string>;

    explicit JournalSocket(std::filesystem::path path)
        : path_(std::move(path)), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        bound_ = fd_ && ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address),
                               sizeof address) == 0;
    }

    bool bound() const { return bound_; }
    const std::filesystem::path& path() const { return path_; }

    // The next entry; nullopt when none arrives within `limit`.
    std::optional<Entry> next(std::chrono::milliseconds limit) {
        pollfd p{fd_.get(), POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(limit.count())) != 1) {
            return std::nullopt;
        }
        std::string datagram(4u << 20, '\0');
        const ssize_t n = ::recv(fd_.get(), datagram.data(), datagram.size(), 0);
        if (n < 0) {
            return std::nullopt;
        }
        datagram.resize(static_cast<std::size_t>(n));
        return decode(datagram);
    }

    // "NAME=value\n", or "NAME\n" + 64-bit little-endian length + value + "\n".
    static Entry decode(const std::string& d) {
        Entry entry;
        for (std::size_t at = 0; at < d.size();) {
            const std::size_t end = d.find_first_of("=\n", at);
            if (end == std::string::npos) {
                break;
            }
            const std::string name = d.substr(at, end - at);
            if (d[end] == '=') {
                const std::size_t eol = d.find('\n', end);
                entry[name] = d.substr(end + 1, eol - end - 1);
                at = eol + 1;
                continue;
            }
            std::uint64_t size = 0;
            for (int i = 7; i >= 0 && end + 1 + 8 <= d.size(); --i) {
                size = size << 8 | static_cast<unsigned char>(d[end + 1 + i]);
            }
            entry[name] = d.substr(end + 9, size);
            at = end + 9 + size + 1;
        }
        return entry;
    }

private:
    std::filesystem::path path_;
    platform::UniqueFd fd_;
    bool bound_ = false;
};

}  // namespace ndpx::test
