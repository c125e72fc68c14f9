#pragma once
// Facts about the machine and its login sessions, for the desktop manager
// stand-in's GetHostFacts and ListSessions commands.

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::host {

struct HostFacts {
    std::string hostname;
    std::string kernelRelease;
    std::string osPrettyName;  // empty when /etc/os-release has none
    std::uint64_t uptimeSeconds = 0;
    unsigned cpuCount = 0;
    std::uint64_t memoryTotalBytes = 0;
};

struct LoginSession {
    std::string user;
    std::string tty;
    std::string host;  // remote host, empty for a local login
    std::time_t loginTime = 0;
    int pid = 0;
};

// A login session as the desktop's session report lists it.
struct DesktopSession {
    std::string id;
    std::string user;
    std::string state;  // "active", "online", "closing"
    std::string type;   // "x11", "wayland", "tty", "remote", ...
    std::string seat;   // empty when the session has none
    std::time_t startTime = 0;
};

HostFacts collectHostFacts();

// The machine's login sessions: logind's when `root` is "/" and logind runs,
// else the user processes of the utmp file under `root`.
std::vector<DesktopSession> collectDesktopSessions(const std::filesystem::path& root);
// The utmp file under `root` (the system's own path, relocated).
std::filesystem::path utmpFileUnder(const std::filesystem::path& root);

// The user processes recorded in a utmp file (the system's by default).
std::vector<LoginSession> collectLoginSessions(const std::string& utmpFile = {});

// Parsers of the files the facts come from, for tests.
// PRETTY_NAME of an os-release text, without quotes.
std::string parseOsPrettyName(std::string_view osRelease);
// MemTotal of a /proc/meminfo text in bytes, 0 when absent.
std::uint64_t parseMemTotalBytes(std::string_view meminfo);
// Whole seconds of a /proc/uptime text, 0 when unreadable.
std::uint64_t parseUptimeSeconds(std::string_view uptime);

}  // namespace ndpx::host
