// The session report timer thread.

#include "reports/AsyncReportGenerator.h"

#include "config/mqttConfig.h"
#include "services/Jitter.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corethread.h>
#include <mfw/moduleLog.h>

#include <condition_variable>
#include <mutex>
#include <random>
#include <system_error>

namespace ndpx {

// One run of the thread with its own stop signal: a Stop still joining an
// old run cannot be confused by the next Start.
struct AsyncReportGenerator::Run {
    std::mutex mutex;
    std::condition_variable stopped;
    bool stop = false;
    CORE::corethread thread;
};

AsyncReportGenerator::AsyncReportGenerator(ConfigSource config, platform::TimeSource& time)
    : config_(std::move(config)), time_(time) {}

AsyncReportGenerator::~AsyncReportGenerator() {
    Close();
}

void AsyncReportGenerator::Start() {
    CORE::MutexLock lock(mutex_);
    if (closed_) {
        MFW_LOG(CORE::kLogDebug,
                "AsyncReportGenerator::Start(): Not starting the report generator, stopping");
        return;
    }
    if (run_) {
        MFW_LOG(CORE::kLogDebug,
                "AsyncReportGenerator::Start(): Async report generator thread already started");
        return;
    }
    auto run = std::make_unique<Run>();
    Run& current = *run;
    // The thread never takes mutex_, so starting it here cannot deadlock.
    if (!current.thread.start("ReportGenerator",
                              [this, &current] { ReportGeneratorThreadProc(current); })) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                "report generator thread");
    }
    run_ = std::move(run);
}

void AsyncReportGenerator::Stop() {
    std::unique_ptr<Run> run;
    {
        CORE::MutexLock lock(mutex_);
        run = std::move(run_);
    }
    if (!run) {
        MFW_LOG(CORE::kLogDebug,
                "AsyncReportGenerator::Stop(): Async report generator thread not running.");
        return;
    }
    {
        const std::lock_guard lock(run->mutex);
        run->stop = true;
    }
    run->stopped.notify_all();
    if (run->thread.isCurrentThread()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                "Stop on the report generator thread");
    }
    run->thread.join();
    MFW_LOG(CORE::kLogVerbose, "AsyncReportGenerator::Stop(): Stopped Report Generator thread");
}

void AsyncReportGenerator::Restart() {
    Stop();
    Start();
}

void AsyncReportGenerator::Close() {
    {
        CORE::MutexLock lock(mutex_);
        closed_ = true;
    }
    Stop();
}

void AsyncReportGenerator::Open() {
    CORE::MutexLock lock(mutex_);
    closed_ = false;
}

bool AsyncReportGenerator::running() const {
    CORE::MutexLock lock(mutex_);
    return run_ != nullptr;
}

void AsyncReportGenerator::ReportGeneratorThreadProc(Run& run) {
    // Read once: a changed interval takes a restart, which the settings
    // watch does.
    const int seconds = config_()->getAsyncSessionSeconds();
    std::mt19937 generator(std::random_device{}());
    for (;;) {
        if (config_()->isMigrationActive()) {
            MFW_LOG(CORE::kLogVerbose,
                    "AsyncReportGenerator::ReportGeneratorThreadProc(): Migration in progress, "
                    "skipping session report");
        } else {
            // Not waited for: the desktop manager hands the report back later.
            CORE::MessageHandler::PostMsg(L"DesktopManager", L"SendSessionReport",
                                          CORE::PropertyBag{});
        }
        const auto wait = jitteredWait(seconds, uniformDraw(generator));
        std::unique_lock lock(run.mutex);
        if (time_.waitFor(lock, run.stopped, wait, [&run] { return run.stop; })) {
            return;
        }
    }
}

}  // namespace ndpx
