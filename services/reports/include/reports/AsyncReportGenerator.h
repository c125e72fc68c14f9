#pragma once
// Asks the desktop manager for a session report at a jittered interval: the
// first request at once, then every 75% to 100% of "AsyncSessionSeconds", so
// that agents started together spread their reports. Nothing is asked while
// a migration runs. The desktop manager hands the report to the "MQTT"
// worker, which publishes it.

#include <mfw/corelock.h>
#include <platform/TimeSource.h>

#include <chrono>
#include <functional>
#include <memory>
#include <random>

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

    // The wait after a report: (0.75 + 0.25 * u) of `seconds`, u in [0, 1).
    static std::chrono::milliseconds jitteredWait(int seconds, double u);
    // A uniform double in [0, 1) with 53 random bits from two 32-bit draws.
    static double uniformDraw(std::mt19937& generator);

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
