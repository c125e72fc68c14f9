#pragma once
// A periodic timer whose callback runs on a thread the timer owns. The thread
// waits on a stop event through the TimeSource, so virtual time drives it in
// tests. Subclasses must call stop() in their destructor.

#include <mfw/coreevent.h>
#include <mfw/coreref.h>

#include <chrono>
#include <cstdint>
#include <thread>

namespace CORE {

class coretimer : public coreref {
public:
    explicit coretimer(ndpx::platform::TimeSource& time = ndpx::platform::TimeSource::real());
    ~coretimer() override;

    // Starts calling TimerCallback every `periodMs`. False if already running.
    bool start(std::uint32_t periodMs);
    // Stops and joins; idempotent. Never call from TimerCallback.
    void stop();
    bool running() const { return thread_.joinable(); }

protected:
    // Return false to end the timer.
    virtual bool TimerCallback() = 0;

private:
    void run(std::chrono::milliseconds period);

    coreevent stopEvent_;
    std::thread thread_;
};

}  // namespace CORE
