#include <mfw/coretimer.h>

#include <platform/Threads.h>

#include <thread>

namespace CORE {
namespace {

class PlainThread : public ownedthread {
public:
    ~PlainThread() override { join(); }
    bool start(const std::string& name, std::function<void()> body) override {
        if (thread_.joinable()) {
            return false;
        }
        try {
            // Named, or it would carry the name of the thread that started it.
            thread_ = std::thread([name, body = std::move(body)] {
                if (!name.empty()) {
                    ndpx::platform::setCurrentThreadOsName(name);
                }
                body();
            });
        } catch (const std::system_error&) {
            return false;
        }
        return true;
    }
    void join() override {
        if (thread_.joinable() && !isCurrentThread()) {
            thread_.join();
        }
    }
    bool joinable() const override { return thread_.joinable(); }
    bool isCurrentThread() const override { return thread_.get_id() == std::this_thread::get_id(); }

private:
    std::thread thread_;
};

}  // namespace

std::unique_ptr<ownedthread> makePlainThread() {
    return std::make_unique<PlainThread>();
}

coretimer::coretimer(ndpx::platform::TimeSource& time, const ownedthreadFactory& threads,
                     std::string name)
    : stopEvent_(coreevent::Reset::Manual, false, time),
      thread_(threads ? threads() : makePlainThread()),
      name_(std::move(name)) {}

coretimer::~coretimer() {
    stop();
}

bool coretimer::start(std::uint32_t periodMs) {
    if (thread_->joinable()) {
        return false;
    }
    stopEvent_.reset();
    return thread_->start(name_, [this, periodMs] { run(std::chrono::milliseconds(periodMs)); });
}

void coretimer::stop() {
    stopEvent_.set();
    thread_->join();
}

void coretimer::run(std::chrono::milliseconds period) {
    while (!stopEvent_.wait(period)) {
        if (!TimerCallback()) {
            break;
        }
    }
}

}  // namespace CORE
