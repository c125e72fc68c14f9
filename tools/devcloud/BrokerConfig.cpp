#include "devcloud/BrokerConfig.h"

#include <platform/UniqueFd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <sstream>
#include <stdexcept>

namespace ndpx::devcloud {
namespace {

std::string currentUser() {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 4096> buffer{};
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr) {
        return entry.pw_name;
    }
    return "root";
}

}  // namespace

std::string mosquittoConf(const BrokerConfig& c) {
    std::ostringstream out;
    out << "# Written by devcloud; regenerated on every start.\n";
    // Started as root, mosquitto switches to this user; keeping our own user
    // lets it read the key file (0600) and write its store and log.
    out << "user " << (c.runAsUser.empty() ? currentUser() : c.runAsUser) << "\n";
    out << "per_listener_settings false\n";
    out << "listener " << c.port << " " << c.bindAddress << "\n";
    out << "set_tcp_nodelay " << (c.noDelay ? "true" : "false") << "\n";
    if (c.tls) {
        out << "cafile " << c.caFile << "\n";
        out << "certfile " << c.certFile << "\n";
        out << "keyfile " << c.keyFile << "\n";
        if (!c.crlFile.empty()) {
            out << "crlfile " << c.crlFile << "\n";
        }
        out << "require_certificate true\n";
        // The certificate is the only credential: its common name becomes
        // the user name, and clients without one are refused.
        out << "use_identity_as_username true\n";
        out << "allow_anonymous false\n";
    } else {
        out << "allow_anonymous true\n";
    }
    if (!c.persistenceDir.empty()) {
        std::string dir = c.persistenceDir;
        if (dir.back() != '/') {
            dir += '/';
        }
        out << "persistence true\n";
        out << "persistence_location " << dir << "\n";
        if (c.saveEveryChange) {
            out << "autosave_on_changes true\n";
            out << "autosave_interval 1\n";
        }
    } else {
        out << "persistence false\n";
    }
    if (!c.logFile.empty()) {
        out << "log_dest file " << c.logFile << "\n";
    }
    if (c.logToStdout) {
        out << "log_dest stdout\n";
    }
    out << "log_type error\nlog_type warning\nlog_type notice\nlog_type information\n";
    out << "log_type subscribe\nlog_type unsubscribe\n";
    out << "log_timestamp_format %Y-%m-%dT%H:%M:%S\n";
    return out.str();
}

int pickFreePort(const std::string& bindAddress) {
    const platform::UniqueFd sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (sock.get() < 0) {
        throw std::runtime_error("socket failed");
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = 0;
    if (::inet_pton(AF_INET, bindAddress.c_str(), &addr.sin_addr) != 1) {
        throw std::invalid_argument("not an IPv4 address: " + bindAddress);
    }
    socklen_t len = sizeof addr;
    const bool ok = ::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                    ::getsockname(sock.get(), reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    if (!ok) {
        throw std::runtime_error("cannot bind a free port on " + bindAddress);
    }
    return ntohs(addr.sin_port);
}

}  // namespace ndpx::devcloud
