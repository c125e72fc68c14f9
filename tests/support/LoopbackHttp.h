#pragma once
// A raw HTTP exchange with a server on the loopback address: the request as
// given, the answer as read until the server closes. Bounded: a hung server
// fails the test, not the run.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace ndpx::test {

// Empty when nothing could be connected or sent.
inline std::string loopbackExchange(std::uint16_t port, const std::string& request) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return {};
    }
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    std::string answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        char buffer[4096];
        for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
            answer.append(buffer, static_cast<std::size_t>(n));
        }
    }
    ::close(fd);
    return answer;
}

// The body of an HTTP answer; empty when it has none.
inline std::string httpBody(const std::string& answer) {
    const auto end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

}  // namespace ndpx::test
