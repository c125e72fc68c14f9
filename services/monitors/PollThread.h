#pragma once
// The poll thread both monitors run: one run at a time, each with its own
// stop signal, so that a Stop still joining an old run cannot be confused by
// the next Start. Every wait of the body is a wait on that signal, on the
// injected clock.

#include <mfw/corelock.h>
#include <platform/TimeSource.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace ndpx {

class PollThread {
public:
    // Waits up to `timeout`; true when the run was stopped first.
    using StopWait = std::function<bool(std::chrono::milliseconds timeout)>;
    using Body = std::function<void(const StopWait&)>;
    enum class Start { Started, AlreadyRunning, Closed, Failed };

    explicit PollThread(platform::TimeSource& time);
    ~PollThread();  // stops and joins the run, if any
    PollThread(const PollThread&) = delete;
    PollThread& operator=(const PollThread&) = delete;

    // A run whose body has returned counts as not running: it is joined and
    // a new one started.
    Start start(const std::string& name, Body body) MFW_EXCLUDES(mutex_);
    // Signals and joins the current run (a run that ended by itself
    // included); false when there is none. With `close`, a stopped run
    // also refuses every later start.
    bool stop(bool close) MFW_EXCLUDES(mutex_);

private:
    struct Run;

    platform::TimeSource& time_;
    CORE::Mutex mutex_;
    std::unique_ptr<Run> run_ MFW_GUARDED_BY(mutex_);
    bool closed_ MFW_GUARDED_BY(mutex_) = false;
};

}  // namespace ndpx
