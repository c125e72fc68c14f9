#pragma once
// A stand-in for the agent's bridge: a SOCK_SEQPACKET listener at the
// bridge's path under a temporary root, and raw sends and receives on the
// connection it accepts. Payloads are encoded with the host framework's
// base64, so the tests also check that the client's own codec agrees.

#include "support/TempDir.h"

#include <ipcclient/IpcClient.h>
#include <mfw/corestring.h>
#include <platform/UniqueFd.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace ndpx::ipcclient::test {

class FakeBridge {
public:
    FakeBridge() {
        std::filesystem::create_directories(path_.parent_path());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        listener_.reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address),
                  0);
        EXPECT_EQ(::listen(listener_.get(), 4), 0);
    }
    const std::filesystem::path& root() const { return dir_.path(); }

    // Takes the connection a client made (or makes within 5 s).
    void accept() {
        pollfd p = {listener_.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&p, 1, 5000), 1) << "no client came";
        peer_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    void closePeer() { peer_.reset(); }

    void sendRaw(const std::string& packet) {
        ASSERT_EQ(::send(peer_.get(), packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
    }
    // As the bridge frames it: JSON, line feed, NUL.
    void sendMessage(const std::string& topic, const std::string& payload) {
        sendRaw(R"({"type":"message","topic":")" + topic + R"(","message":")" +
                CORE::base64Encode(payload) + "\"}\n" + std::string(1, '\0'));
    }
    void sendIdentity(const std::string& vmId) {
        sendMessage("core", R"({"version":1,"type":"setidentity","data":{"edgeid":"e1",)"
                            R"("shorttemplateid":"t3","vmid":")" +
                                vmId + R"(","identity":"e1t3_)" + vmId + "\"}}");
    }
    // The next packet the client sent; "" when none came within `ms`.
    std::string receive(int ms = 2000) {
        pollfd p = {peer_.get(), POLLIN, 0};
        if (::poll(&p, 1, ms) != 1) {
            return {};
        }
        std::string packet(kMaxMessageBytes + 1, '\0');
        const ssize_t n = ::recv(peer_.get(), packet.data(), packet.size(), 0);
        packet.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return packet;
    }

private:
    ndpx::test::TempDir dir_;
    std::filesystem::path path_ = bridgeSocketPath(dir_.path());
    platform::UniqueFd listener_;
    platform::UniqueFd peer_;
};

}  // namespace ndpx::ipcclient::test
