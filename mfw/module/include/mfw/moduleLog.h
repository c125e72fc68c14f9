#pragma once
// Logging from inside a plug-in module: every line carries the module's
// source name (its file name without directory and suffix).

#include <mfw/log.h>

#include <string>

namespace CORE {

const char* moduleSourceName();
void setModuleSourceName(const std::string& name);

}  // namespace CORE

// Formats and writes only when the level is on, so arguments cost nothing
// otherwise. The format is checked by the compiler.
#define MFW_LOG(level, ...)                                                         \
    do {                                                                            \
        if (::CORE::isLoggingAtLevel(level)) {                                      \
            ::CORE::__SysMessage(::CORE::moduleSourceName(), (level), __VA_ARGS__); \
        }                                                                           \
    } while (0)
