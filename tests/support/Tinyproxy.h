#pragma once
// tinyproxy on an ephemeral loopback port with its own configuration, for
// requests that must go through a real HTTP proxy.

#include "support/Process.h"
#include "support/TempDir.h"

#include <memory>
#include <optional>
#include <string>

namespace ndpx::test {

class Tinyproxy {
public:
    static std::optional<std::string> binary();

    // `extraConfig` lines are appended to the configuration (e.g. BasicAuth).
    explicit Tinyproxy(const std::string& extraConfig = "");

    bool running() const { return process_ != nullptr; }
    int port() const { return port_; }
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    // Whether the proxy tunnelled a connection to `port` on loopback.
    bool tunnelledTo(int port) const;
    std::string output() const { return process_ ? process_->output() : std::string(); }

private:
    TempDir dir_;
    int port_ = 0;
    std::unique_ptr<Process> process_;
};

}  // namespace ndpx::test
