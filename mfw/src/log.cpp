#include <mfw/log.h>
#include <mfw/logthrottle.h>
#include <platform/CalendarTime.h>
#include <platform/Threads.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

namespace CORE {
namespace {

std::atomic<int> g_level{kLogInfo};

struct SinkList {
    std::mutex mutex;
    std::vector<std::shared_ptr<LogSink>> sinks;
};

SinkList& sinkList() {
    static SinkList* list = new SinkList;  // outlives static destructors that log
    return *list;
}

// Warnings and errors repeat when bad input repeats; they are throttled so
// that a flood of it cannot fill the disk. Lower levels are off unless asked
// for, and then all of them are wanted.
struct Throttle {
    std::mutex mutex;
    LogThrottle throttle;
};

Throttle& throttle() {
    static Throttle* t = new Throttle;  // as the sink list
    return *t;
}

// A format of conversions only ("%s") says nothing of the line's kind.
bool onlyConversions(std::string_view fmt) {
    for (std::size_t i = 0; i < fmt.size(); ++i) {
        if (fmt[i] != '%') {
            if (fmt[i] != ' ' && fmt[i] != '\n') {
                return false;
            }
            continue;
        }
        const std::size_t end = fmt.find_first_of("diouxXeEfFgGaAcspn%", i + 1);
        if (end == std::string_view::npos) {
            return false;
        }
        i = end;
    }
    return true;
}

std::string timestampNow() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t secs = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    const std::tm tm = ndpx::platform::localCalendarTime(secs);
    char buf[32];
    const std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    std::snprintf(buf + n, sizeof buf - n, ".%03d", static_cast<int>(ms));
    return buf;
}

std::string formatLine(const LogRecord& r) {
    std::string line;
    line.reserve(r.text.size() + 64);
    line += r.timestamp;
    line += " [";
    line += r.source;
    line += "] L";
    line += std::to_string(r.level);
    line += " ";
    line += std::to_string(r.threadId);
    line += ": ";
    line += r.text;
    line += '\n';
    return line;
}

class StderrSink : public LogSink {
public:
    void write(const LogRecord& record) override {
        const std::string line = formatLine(record);
        std::lock_guard lock(mutex_);
        std::fwrite(line.data(), 1, line.size(), stderr);
        std::fflush(stderr);
    }

private:
    std::mutex mutex_;
};

class RotatingFileSink : public LogSink {
public:
    RotatingFileSink(std::string path, std::size_t maxBytes, int keep)
        : path_(std::move(path)), maxBytes_(maxBytes), keep_(std::max(keep, 0)) {
        open();
    }

    void write(const LogRecord& record) override {
        const std::string line = formatLine(record);
        std::lock_guard lock(mutex_);
        if (!out_.is_open()) {
            return;
        }
        if (written_ > 0 && written_ + line.size() > maxBytes_) {
            rotate();
        }
        out_ << line;
        out_.flush();
        written_ += line.size();
    }

private:
    void open() {
        out_.open(path_, std::ios::app | std::ios::binary);
        std::error_code ec;
        const auto size = std::filesystem::file_size(path_, ec);
        written_ = ec ? 0 : static_cast<std::size_t>(size);
    }

    void rotate() {
        out_.close();
        std::error_code ec;
        if (keep_ == 0) {
            std::filesystem::remove(path_, ec);
        } else {
            for (int i = keep_ - 1; i >= 1; --i) {
                std::filesystem::rename(path_ + "." + std::to_string(i),
                                        path_ + "." + std::to_string(i + 1), ec);
            }
            std::filesystem::rename(path_, path_ + ".1", ec);
        }
        open();
    }

    std::mutex mutex_;
    const std::string path_;
    const std::size_t maxBytes_;
    const int keep_;
    std::ofstream out_;
    std::size_t written_ = 0;
};

}  // namespace

std::shared_ptr<LogSink> makeStderrSink() {
    return std::make_shared<StderrSink>();
}

std::shared_ptr<LogSink> makeRotatingFileSink(const std::string& path, std::size_t maxBytes,
                                              int keep) {
    return std::make_shared<RotatingFileSink>(path, maxBytes, keep);
}

void CaptureSink::write(const LogRecord& record) {
    {
        std::lock_guard lock(mutex_);
        records_.push_back(record);
    }
    added_.notify_all();
}

bool CaptureSink::waitFor(std::string_view text, std::chrono::milliseconds limit,
                          std::size_t n) const {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, limit, [&] { return countLocked(text) >= n; });
}

std::vector<LogRecord> CaptureSink::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> CaptureSink::lines() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(records_.size());
    for (const auto& r : records_) {
        out.push_back(r.text);
    }
    return out;
}

bool CaptureSink::contains(std::string_view text) const {
    return count(text) > 0;
}

std::size_t CaptureSink::count(std::string_view text) const {
    std::lock_guard lock(mutex_);
    return countLocked(text);
}

std::size_t CaptureSink::countLocked(std::string_view text) const {
    return static_cast<std::size_t>(
        std::count_if(records_.begin(), records_.end(),
                      [&](const LogRecord& r) { return r.text.find(text) != std::string::npos; }));
}

void CaptureSink::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

namespace {

void writeToSinks(const LogRecord& record) {
    // Copy the list so that no lock is held while sinks write.
    std::vector<std::shared_ptr<LogSink>> sinks;
    {
        auto& list = sinkList();
        std::lock_guard lock(list.mutex);
        sinks = list.sinks;
    }
    for (const auto& sink : sinks) {
        sink->write(record);
    }
}

}  // namespace

void setLogLevel(int level) {
    g_level.store(std::clamp(level, 0, 5), std::memory_order_relaxed);
}
int logLevel() {
    return g_level.load(std::memory_order_relaxed);
}
bool isLoggingAtLevel(int level) {
    return level >= g_level.load(std::memory_order_relaxed);
}

void addLogSink(std::shared_ptr<LogSink> sink) {
    auto& list = sinkList();
    std::lock_guard lock(list.mutex);
    list.sinks.push_back(std::move(sink));
}

void removeLogSink(const std::shared_ptr<LogSink>& sink) {
    auto& list = sinkList();
    std::lock_guard lock(list.mutex);
    std::erase(list.sinks, sink);
}

void clearLogSinks() {
    // The last counts of left-out lines are told before the sinks go.
    std::vector<LogThrottle::LeftOut> due;
    {
        auto& t = throttle();
        std::lock_guard lock(t.mutex);
        due = t.throttle.drain();
    }
    for (const auto& leftOut : due) {
        writeToSinks(LogRecord{leftOut.source, leftOut.level, leftOutText(leftOut),
                               ndpx::platform::currentThreadId(), timestampNow()});
    }
    auto& list = sinkList();
    std::lock_guard lock(list.mutex);
    list.sinks.clear();
}

void __SysMessageV(const char* source, int level, const char* fmt, va_list args) {
    if (!isLoggingAtLevel(level) || fmt == nullptr) {
        return;
    }
    LogRecord record;
    va_list copy;
    va_copy(copy, args);
    char small[512];
    const int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0) {
        record.text = fmt;  // unformattable: keep the format rather than lose the line
    } else if (static_cast<std::size_t>(n) < sizeof small) {
        record.text.assign(small, static_cast<std::size_t>(n));
    } else {
        record.text.resize(static_cast<std::size_t>(n) + 1);
        std::vsnprintf(record.text.data(), record.text.size(), fmt, args);
        record.text.resize(static_cast<std::size_t>(n));
    }
    record.source = source != nullptr ? source : "";
    record.level = level;
    record.threadId = ndpx::platform::currentThreadId();

    std::vector<LogThrottle::LeftOut> due;
    bool admitted = true;
    if (level >= kLogWarning) {
        const std::string_view kind = onlyConversions(fmt) ? std::string_view(record.text) : fmt;
        auto& t = throttle();
        std::lock_guard lock(t.mutex);
        admitted = t.throttle.admit(record.source, level, kind, record.text,
                                    LogThrottle::Clock::now(), due);
    }
    if (!admitted && due.empty()) {
        return;
    }
    record.timestamp = timestampNow();
    for (const auto& leftOut : due) {
        writeToSinks(LogRecord{leftOut.source, leftOut.level, leftOutText(leftOut), record.threadId,
                               record.timestamp});
    }
    if (admitted) {
        writeToSinks(record);
    }
}

void __SysMessage(const char* source, int level, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    __SysMessageV(source, level, fmt, args);
    va_end(args);
}

}  // namespace CORE
