#include "FixedZone.h"

#include <mfw/corestring.h>
#include <platform/Paths.h>
#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern char** environ;  // what the compiler inherits

namespace ndpx::fixedzone {
namespace {

namespace fs = std::filesystem;

constexpr const char* kZic = "/usr/sbin/zic";
// The compiler says little; a longer text is not the compiler's.
constexpr std::size_t kMaxOutput = 4096;
// A zone file is a few kilobytes even for the oldest zones.
constexpr std::streamsize kMaxZoneFile = 1 << 20;

// Releases the spawn actions on every path.
struct SpawnActions {
    posix_spawn_file_actions_t actions{};
    SpawnActions() { ::posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

// Runs the zone compiler on `source`, its output going to `folder`.
bool runZic(const fs::path& folder, const fs::path& source, std::string& error) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        error = "pipe: " + std::system_category().message(errno);
        return false;
    }
    platform::UniqueFd readEnd(ends[0]);
    platform::UniqueFd writeEnd(ends[1]);
    SpawnActions spawn;
    ::posix_spawn_file_actions_addopen(&spawn.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&spawn.actions, writeEnd.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&spawn.actions, writeEnd.get(), STDERR_FILENO);
    std::vector<std::string> args{"zic", "-d", folder.string(), source.string()};
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, kZic, &spawn.actions, nullptr, argv.data(), environ);
    writeEnd.reset();  // so that reading ends when the compiler does
    if (spawned != 0) {
        error = std::string("cannot run ") + kZic + ": " + std::system_category().message(spawned);
        return false;
    }
    std::string output;
    char buffer[512];
    for (;;) {
        const ssize_t got = ::read(readEnd.get(), buffer, sizeof buffer);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            break;
        }
        if (got > 0 && output.size() < kMaxOutput) {
            output.append(buffer, static_cast<std::size_t>(got));
        }
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return true;
    }
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r')) {
        output.pop_back();
    }
    error = std::string(kZic) + " failed: " + output;
    return false;
}

std::uint32_t be32(const std::string& data, std::size_t at) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = (value << 8) | static_cast<unsigned char>(data[at + i]);
    }
    return value;
}

// The counts in a zone file's header.
struct Counts {
    std::size_t utIndicators, stdIndicators, leaps, transitions, types, chars;

    // The size of the data block that follows the header.
    std::size_t blockSize(std::size_t timeSize) const {
        return transitions * (timeSize + 1) + types * 6 + chars + leaps * (timeSize + 4) +
               stdIndicators + utIndicators;
    }
};

constexpr std::size_t kHeaderSize = 44;

std::optional<Counts> header(const std::string& data, std::size_t at) {
    if (data.size() < at + kHeaderSize || data.compare(at, 4, "TZif") != 0) {
        return std::nullopt;
    }
    const std::size_t counts = at + 20;
    return Counts{be32(data, counts),      be32(data, counts + 4),  be32(data, counts + 8),
                  be32(data, counts + 12), be32(data, counts + 16), be32(data, counts + 20)};
}

}  // namespace

std::optional<fs::path> compile(int offsetMinutes, const fs::path& folder, std::string& error) {
    if (!platform::paths::createDirectories(folder, fs::perms(0755), error)) {
        return std::nullopt;
    }
    const int magnitude = std::abs(offsetMinutes);
    const char sign = offsetMinutes < 0 ? '-' : '+';
    const std::string name = CORE::format("UTC%c%02d%02d", sign, magnitude / 60, magnitude % 60);
    const fs::path source = folder / (name + ".zi");
    {
        std::ofstream out(source, std::ios::trunc);
        out << CORE::format("Zone %s %c%d:%02d - %%z\n", name.c_str(), sign, magnitude / 60,
                            magnitude % 60);
        if (!out.flush()) {
            error = "cannot write " + source.string();
            return std::nullopt;
        }
    }
    const bool compiled = runZic(folder, source, error);
    std::error_code ignored;
    fs::remove(source, ignored);
    if (!compiled) {
        return std::nullopt;
    }
    return folder / name;
}

std::optional<int> standardOffset(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::string data;
    data.resize(static_cast<std::size_t>(kMaxZoneFile));
    in.read(data.data(), kMaxZoneFile);
    data.resize(static_cast<std::size_t>(in.gcount()));
    auto counts = header(data, 0);
    if (!counts) {
        return std::nullopt;
    }
    // Files of version 2 on repeat the data with 64-bit times: read those.
    std::size_t at = 0;
    std::size_t timeSize = 4;
    if (data[4] >= '2') {
        const std::size_t second = kHeaderSize + counts->blockSize(timeSize);
        if (auto wide = header(data, second)) {
            at = second;
            counts = wide;
            timeSize = 8;
        }
    }
    const std::size_t indices = at + kHeaderSize + counts->transitions * timeSize;
    const std::size_t types = indices + counts->transitions;
    if (counts->types == 0 || data.size() < at + kHeaderSize + counts->blockSize(timeSize)) {
        return std::nullopt;
    }
    const auto offsetOf = [&](std::size_t type) {
        return static_cast<std::int32_t>(be32(data, types + type * 6));
    };
    // The latest change to a standard (not daylight) time says what is in force.
    for (std::size_t i = counts->transitions; i-- > 0;) {
        const std::size_t type = static_cast<unsigned char>(data[indices + i]);
        if (type < counts->types && data[types + type * 6 + 4] == 0) {
            return offsetOf(type);
        }
    }
    return offsetOf(0);
}

}  // namespace ndpx::fixedzone
