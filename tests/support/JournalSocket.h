#pragma once
// A stand-in for the journal: a Unix datagram socket bound at a path of the
// test's, and the entries sent to it, decoded.

#include <platform/UniqueFd.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace ndpx::test {

class JournalSocket {
public:
    using Entry = std::map<std::string, std::string>;

    explicit JournalSocket(std::filesystem::path path) : path_(std::move(path)) {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path_.c_str(), sizeof a.sun_path - 1);
        bound_ = ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    }
    bool bound() const { return bound_; }
    const std::filesystem::path& path() const { return path_; }

    // The next entry; nullopt when none arrives within `limit`.
    std::optional<Entry> next(std::chrono::milliseconds limit) {
        pollfd p{fd_.get(), POLLIN, 0};
        std::string d(4u << 20, '\0');
        const ssize_t n = ::poll(&p, 1, static_cast<int>(limit.count())) == 1
                              ? ::recv(fd_.get(), d.data(), d.size(), 0)
                              : -1;
        if (n < 0) {
            return std::nullopt;
        }
        d.resize(static_cast<std::size_t>(n));
        // "NAME=value\n", or "NAME\n", a 64-bit little-endian length, the
        // value, "\n". The service manager's messages have no last "\n".
        Entry entry;
        for (std::size_t at = 0, end; at < d.size(); at = end + 1) {
            end = std::min(d.find_first_of("=\n", at), d.size());
            std::string& value = entry[d.substr(at, end - at)];
            if (end < d.size() && d[end] == '=') {
                at = end + 1;
                end = std::min(d.find('\n', at), d.size());
                value = d.substr(at, end - at);
            } else if (end < d.size()) {
                std::uint64_t size = 0;
                std::memcpy(&size, d.data() + end + 1, sizeof size);  // little-endian host
                value = d.substr(end + 9, size);
                end += 9 + size;
            }
        }
        return entry;
    }

private:
    std::filesystem::path path_;
    platform::UniqueFd fd_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    bool bound_ = false;
};

}  // namespace ndpx::test
