#pragma once
// Asks the desktop manager for a session report at a jittered interval: the
// first request at once, then every 75% to 100% of "AsyncSessionSeconds", so
// that agents started together spread their reports. Nothing is asked while
// a migration runs. The desktop manager hands the report to the "MQTT"
// worker, which publishes it.

#include <mfw/corelock.h>
#include <platform/TimeSource.h>

#include <functional>
#include <memory>

namespace ndpx {

class mqttConfig;

class AsyncReportGenerator {
public:
    using ConfigSource = std::function<std::shared_ptr<mqttConfig>()>;

    explicit AsyncReportGenerator(ConfigSource config,
                                  platform::TimeSource& time = platform::TimeSource::real());
    ~AsyncReportGenerator();
    AsyncReportGenerator(const AsyncReportGenerator&) = delete;
    AsyncReportGenerator& operator=(const AsyncReportGenerator&) = delete;

    // Starts the thread unless it runs (or the generator is closed).
    void Start() MFW_EXCLUDES(mutex_);
    // Ends and joins the thread; a wait in progress ends at once.
    void Stop() MFW_EXCLUDES(mutex_);
    // Stop, then Start: a changed interval applies at once.
    void Restart() MFW_EXCLUDES(mutex_);

    // The owner's stop: the thread ends and no start is taken until Open, so
    // a late subscription or settings change cannot bring it back.
    void Close() MFW_EXCLUDES(mutex_);
    void Open() MFW_EXCLUDES(mutex_);

    bool running() const MFW_EXCLUDES(mutex_);

private:
    struct Run;

    void ReportGeneratorThreadProc(Run& run);

    const ConfigSource config_;
    platform::TimeSource& time_;
    mutable CORE::Mutex mutex_;
    std::unique_ptr<Run> run_ MFW_GUARDED_BY(mutex_);
    bool closed_ MFW_GUARDED_BY(mutex_) = false;
};

}  // namespace ndpx
