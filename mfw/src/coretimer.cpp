#include <mfw/coretimer.h>

namespace CORE {

coretimer::coretimer(ndpx::platform::TimeSource& time)
    : stopEvent_(coreevent::Reset::Manual, false, time) {}

coretimer::~coretimer() {
    stop();
}

bool coretimer::start(std::uint32_t periodMs) {
    if (thread_.joinable()) {
        return false;
    }
    stopEvent_.reset();
    thread_ = std::thread([this, periodMs] { run(std::chrono::milliseconds(periodMs)); });
    return true;
}

void coretimer::stop() {
    stopEvent_.set();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

void coretimer::run(std::chrono::milliseconds period) {
    while (!stopEvent_.wait(period)) {
        if (!TimerCallback()) {
            break;
        }
    }
}

}  // namespace CORE
