#include "ContextSwitches.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace ndpx::bench {

std::uint64_t contextSwitches(pid_t pid) {
    std::uint64_t total = 0;
    std::error_code ec;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
        std::ifstream status(task.path() / "status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
                line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
                total += std::stoull(line.substr(line.find(':') + 1));
            }
        }
    }
    return total;
}

}  // namespace ndpx::bench
