#pragma once
// A periodic timer whose callback runs on a thread the timer owns. The thread
// waits on a stop event through the TimeSource, so virtual time drives it in
// tests. Subclasses must call stop() in their destructor.

#include <mfw/coreevent.h>
#include <mfw/coreref.h>
#include <mfw/ownedthread.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace CORE {

class coretimer : public coreref {
public:
    // `threads` makes the timer's thread; by default a plain one. Code in a
    // module passes corethread::factory() so that the thread is one of the
    // module's.
    // `name` names the thread (as the module's thread list shows it).
    explicit coretimer(ndpx::platform::TimeSource& time = ndpx::platform::TimeSource::real(),
                       const ownedthreadFactory& threads = {}, std::string name = "coretimer");
    ~coretimer() override;

    // Starts calling TimerCallback every `periodMs`. False if already running.
    bool start(std::uint32_t periodMs);
    // Stops and joins; idempotent. Never call from TimerCallback.
    void stop();
    bool running() const { return thread_->joinable(); }

protected:
    // Return false to end the timer.
    virtual bool TimerCallback() = 0;

private:
    void run(std::chrono::milliseconds period);

    coreevent stopEvent_;
    std::unique_ptr<ownedthread> thread_;
    const std::string name_;
};

}  // namespace CORE
