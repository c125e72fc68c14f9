#include <mfw/moduleLog.h>

#include <cstdio>

namespace CORE {
namespace {
// Set once when the module loads, before any of its threads run, and read on
// every log line: a fixed buffer that is never freed or moved.
char g_name[64] = "ndpx";
}  // namespace

const char* moduleSourceName() {
    return g_name;
}

void setModuleSourceName(const std::string& name) {
    std::snprintf(g_name, sizeof g_name, "%s", name.c_str());
}

}  // namespace CORE
