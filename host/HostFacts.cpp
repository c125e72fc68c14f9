#include "host/HostFacts.h"

#include <sys/utsname.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <utmpx.h>

#include <charconv>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>

namespace ndpx::host {
namespace {

std::string readFile(const char* path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// utmp fields are fixed-size and not always terminated.
template <std::size_t N>
std::string field(const char (&text)[N]) {
    std::size_t n = 0;
    while (n < N && text[n] != '\0') {
        ++n;
    }
    return std::string(text, n);
}

// getutxent keeps its position and file in process-wide state.
std::mutex utmpMutex;

}  // namespace

std::string parseOsPrettyName(std::string_view osRelease) {
    constexpr std::string_view kKey = "PRETTY_NAME=";
    std::size_t pos = 0;
    while (pos < osRelease.size()) {
        std::size_t end = osRelease.find('\n', pos);
        if (end == std::string_view::npos) {
            end = osRelease.size();
        }
        std::string_view line = osRelease.substr(pos, end - pos);
        pos = end + 1;
        if (line.substr(0, kKey.size()) != kKey) {
            continue;
        }
        line.remove_prefix(kKey.size());
        if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') &&
            line.back() == line.front()) {
            line = line.substr(1, line.size() - 2);
        }
        return std::string(line);
    }
    return {};
}

std::uint64_t parseMemTotalBytes(std::string_view meminfo) {
    constexpr std::string_view kKey = "MemTotal:";
    const std::size_t at = meminfo.find(kKey);
    if (at == std::string_view::npos) {
        return 0;
    }
    std::size_t p = at + kKey.size();
    while (p < meminfo.size() && meminfo[p] == ' ') {
        ++p;
    }
    std::uint64_t kib = 0;
    std::from_chars(meminfo.data() + p, meminfo.data() + meminfo.size(), kib);
    return kib * 1024;  // the kernel writes "kB" and means KiB
}

std::uint64_t parseUptimeSeconds(std::string_view uptime) {
    std::uint64_t seconds = 0;
    std::from_chars(uptime.data(), uptime.data() + uptime.size(), seconds);
    return seconds;
}

HostFacts collectHostFacts() {
    HostFacts facts;
    utsname uts{};
    if (::uname(&uts) == 0) {
        facts.hostname = uts.nodename;
        facts.kernelRelease = uts.release;
    }
    facts.osPrettyName = parseOsPrettyName(readFile("/etc/os-release"));
    facts.uptimeSeconds = parseUptimeSeconds(readFile("/proc/uptime"));
    const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    facts.cpuCount =
        online > 0 ? static_cast<unsigned>(online) : std::thread::hardware_concurrency();
    facts.memoryTotalBytes = parseMemTotalBytes(readFile("/proc/meminfo"));
    return facts;
}

std::vector<LoginSession> collectLoginSessions(const std::string& utmpFile) {
    std::vector<LoginSession> sessions;
    const std::lock_guard lock(utmpMutex);
    // NOLINTBEGIN(concurrency-mt-unsafe): utmpMutex serialises the utmp cursor
    if (!utmpFile.empty() && ::utmpxname(utmpFile.c_str()) != 0) {
        return sessions;
    }
    ::setutxent();
    while (const utmpx* entry = ::getutxent()) {
        if (entry->ut_type != USER_PROCESS) {
            continue;
        }
        LoginSession s;
        s.user = field(entry->ut_user);
        s.tty = field(entry->ut_line);
        s.host = field(entry->ut_host);
        s.loginTime = static_cast<std::time_t>(entry->ut_tv.tv_sec);
        s.pid = entry->ut_pid;
        sessions.push_back(std::move(s));
    }
    ::endutxent();
    if (!utmpFile.empty()) {
        ::utmpxname(_PATH_UTMPX);  // back to the system's file for other readers
    }
    // NOLINTEND(concurrency-mt-unsafe)
    return sessions;
}

namespace {

struct BusUnref {
    void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* m) const { ::sd_bus_message_unref(m); }
};

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";

std::string sessionProperty(sd_bus* bus, const char* path, const char* name) {
    sd_bus_error error{};  // what SD_BUS_ERROR_NULL spells in C
    char* value = nullptr;
    std::string text;
    if (::sd_bus_get_property_string(bus, kLogind, path, kSessionInterface, name, &error, &value) >=
        0) {
        text = value;
    }
    ::free(value);  // sd-bus hands out malloc'd text
    ::sd_bus_error_free(&error);
    return text;
}

// Nothing when logind cannot be asked.
std::optional<std::vector<DesktopSession>> logindSessions() {
    if (::access("/run/systemd/seats", F_OK) != 0) {
        return std::nullopt;  // logind does not run: asking would wait for a time-out
    }
    sd_bus* rawBus = nullptr;
    if (::sd_bus_open_system(&rawBus) < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<sd_bus, BusUnref> bus(rawBus);
    sd_bus_error error{};  // what SD_BUS_ERROR_NULL spells in C
    sd_bus_message* rawReply = nullptr;
    const int called = ::sd_bus_call_method(bus.get(), kLogind, "/org/freedesktop/login1",
                                            "org.freedesktop.login1.Manager", "ListSessions",
                                            &error, &rawReply, "");
    ::sd_bus_error_free(&error);
    if (called < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<sd_bus_message, MessageUnref> reply(rawReply);
    if (::sd_bus_message_enter_container(reply.get(), 'a', "(susso)") < 0) {
        return std::nullopt;
    }
    std::vector<DesktopSession> sessions;
    const char* id = nullptr;
    std::uint32_t uid = 0;
    const char* user = nullptr;
    const char* seat = nullptr;
    const char* path = nullptr;
    while (::sd_bus_message_read(reply.get(), "(susso)", &id, &uid, &user, &seat, &path) > 0) {
        DesktopSession s;
        s.id = id;
        s.user = user;
        s.seat = seat;
        s.state = sessionProperty(bus.get(), path, "State");
        s.type = sessionProperty(bus.get(), path, "Type");
        std::uint64_t usec = 0;
        if (::sd_bus_get_property_trivial(bus.get(), kLogind, path, kSessionInterface, "Timestamp",
                                          &error, 't', &usec) >= 0) {
            s.startTime = static_cast<std::time_t>(usec / 1000000);
        }
        ::sd_bus_error_free(&error);
        sessions.push_back(std::move(s));
    }
    return sessions;
}

}  // namespace

std::filesystem::path utmpFileUnder(const std::filesystem::path& root) {
    return root / std::filesystem::path(_PATH_UTMPX).relative_path();
}

std::vector<DesktopSession> collectDesktopSessions(const std::filesystem::path& root) {
    const bool systemRoot = root.empty() || std::filesystem::path(root).lexically_normal() == "/";
    if (systemRoot) {
        if (auto sessions = logindSessions()) {
            return std::move(*sessions);
        }
    }
    std::vector<DesktopSession> sessions;
    for (const LoginSession& login :
         collectLoginSessions(systemRoot ? std::string() : utmpFileUnder(root).string())) {
        DesktopSession s;
        s.id = std::to_string(login.pid);
        s.user = login.user;
        s.state = "active";
        s.type = login.host.empty() ? "tty" : "remote";
        s.startTime = login.loginTime;
        sessions.push_back(std::move(s));
    }
    return sessions;
}

}  // namespace ndpx::host
