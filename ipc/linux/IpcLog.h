#pragma once
// The transport's log records, to a sink that may be empty. Records name
// processes and sizes, never what a message says.

#include <ipc/IpcTransport.h>

#include <string>
#include <system_error>
#include <utility>

namespace ndpx::ipc::seqpacket {

namespace level {
inline constexpr int kError = 2;
inline constexpr int kWarning = 3;
inline constexpr int kInformation = 4;
inline constexpr int kDebug = 5;
inline constexpr int kTrace = 6;
}  // namespace level

inline void writeLog(const IpcLogSink& sink, int level, const char* function, std::string message) {
    if (sink) {
        sink(IpcLogRecord{level, function, std::move(message)});
    }
}

inline std::string errnoText(int error) {
    return std::generic_category().message(error);
}

}  // namespace ndpx::ipc::seqpacket
