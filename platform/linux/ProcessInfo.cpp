#include "platform/ProcessInfo.h"

#include <unistd.h>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

namespace ndpx::platform {
namespace {

// Field 22 of /proc/PID/stat; the command name (field 2) may hold spaces
// and parentheses, so the fields are counted from its closing one.
std::optional<std::uint64_t> startTimeOf(const std::string& proc) {
    std::ifstream in(proc + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) {
        return std::nullopt;
    }
    const auto close = stat.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(stat.substr(close + 1));
    std::string field;
    for (int i = 3; i <= 22; ++i) {
        if (!(fields >> field)) {
            return std::nullopt;
        }
    }
    try {
        return std::stoull(field);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<std::uint32_t> realUidOf(const std::string& proc) {
    std::ifstream in(proc + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("Uid:", 0) == 0) {
            std::istringstream fields(line.substr(4));
            std::uint32_t uid = 0;
            if (fields >> uid) {
                return uid;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<ProcessIdentity> processIdentity(std::int32_t pid, std::string& error) {
    if (pid <= 0) {
        error = "no process ID";
        return std::nullopt;
    }
    const std::string proc = "/proc/" + std::to_string(pid);
    ProcessIdentity id;
    char target[4096];
    const ssize_t n = ::readlink((proc + "/exe").c_str(), target, sizeof target - 1);
    if (n < 0) {
        error = "cannot read its executable: " + std::generic_category().message(errno);
        return std::nullopt;
    }
    id.executable.assign(target, static_cast<std::size_t>(n));
    const auto start = startTimeOf(proc);
    const auto uid = realUidOf(proc);
    if (!start || !uid) {
        error = "cannot read its status";
        return std::nullopt;
    }
    id.startTime = *start;
    id.uid = *uid;
    return id;
}

std::string baseName(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace ndpx::platform
