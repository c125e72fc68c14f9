#pragma once
// The host log. Levels run from 0 (most verbose) to 4 (error); a line is
// written when its level is at least the configured level. Each line carries
// the source name of the module that wrote it.

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace CORE {

enum LogLevel : int {
    kLogVerbose = 0,
    kLogDebug = 1,
    kLogInfo = 2,
    kLogWarning = 3,
    kLogError = 4
};

struct LogRecord {
    std::string source;
    int level;
    std::string text;
    unsigned long threadId;
    std::string timestamp;  // "YYYY-MM-DD hh:mm:ss.mmm" local time
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void write(const LogRecord& record) = 0;
};

// Lines to stderr.
std::shared_ptr<LogSink> makeStderrSink();
// Lines to `path`; when the file reaches `maxBytes` it is renamed to
// path.1 (path.1 to path.2 and so on, keeping `keep` old files).
std::shared_ptr<LogSink> makeRotatingFileSink(const std::string& path, std::size_t maxBytes,
                                              int keep);

// Keeps every record in memory, for tests.
class CaptureSink : public LogSink {
public:
    void write(const LogRecord& record) override;
    std::vector<LogRecord> records() const;
    std::vector<std::string> lines() const;  // texts only
    bool contains(std::string_view text) const;
    // Waits (bounded) until `n` lines contain `text`.
    bool waitFor(std::string_view text, std::chrono::milliseconds limit, std::size_t n = 1) const;
    std::size_t count(std::string_view text) const;
    void clear();

private:
    std::size_t countLocked(std::string_view text) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::vector<LogRecord> records_;
};

void setLogLevel(int level);
int logLevel();
bool isLoggingAtLevel(int level);
void addLogSink(std::shared_ptr<LogSink> sink);
void removeLogSink(const std::shared_ptr<LogSink>& sink);
void clearLogSinks();

// The host log writer.
void __SysMessage(const char* source, int level, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
void __SysMessageV(const char* source, int level, const char* fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

// The source name of the module this code is linked into (see moduleLog.h);
// the host framework's own lines use "mfw".
}  // namespace CORE
