// Events and timers in virtual time: a one-minute wait ends the moment the
// manual clock passes it, and never before.

#include "support/ManualTimeSource.h"

#include <mfw/coreevent.h>
#include <mfw/corethread.h>
#include <mfw/coretimer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace CORE {
namespace {

using ndpx::test::ManualTimeSource;
using namespace std::chrono_literals;

TEST(CoreEvent, ManualStaysSetAutoResetsOnTheWaitThatSeesIt) {
    coreevent manual(coreevent::Reset::Manual);
    manual.set();
    EXPECT_TRUE(manual.wait(0ms));
    EXPECT_TRUE(manual.wait(0ms));
    manual.reset();
    EXPECT_FALSE(manual.wait(0ms));

    coreevent autoReset(coreevent::Reset::Auto, true);
    EXPECT_TRUE(autoReset.wait(0ms));
    EXPECT_FALSE(autoReset.wait(0ms));
}

TEST(CoreEvent, TimedWaitEndsWhenVirtualTimePassesItsDeadline) {
    ManualTimeSource clock;
    coreevent event(coreevent::Reset::Manual, false, clock);
    auto waiter = std::async(std::launch::async, [&] { return event.wait(60s); });
    ASSERT_TRUE(clock.awaitWaiters(1));
    clock.advance(59s);
    EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
    clock.advance(1s);
    EXPECT_FALSE(waiter.get());

    auto signalled = std::async(std::launch::async, [&] { return event.waitMs(kInfinite); });
    ASSERT_TRUE(clock.awaitWaiters(1));
    event.set();
    EXPECT_TRUE(signalled.get());
}

class CountingTimer : public coretimer {
public:
    explicit CountingTimer(ndpx::platform::TimeSource& t, ownedthreadFactory threads = {})
        : coretimer(t, std::move(threads)) {}
    ~CountingTimer() override { stop(); }
    std::atomic<int> ticks{0};

protected:
    bool TimerCallback() override {
        ++ticks;
        return true;
    }
};

TEST(CoreTimer, TicksOncePerPeriodOfVirtualTimeAndStopsPromptly) {
    ManualTimeSource clock;
    CountingTimer timer(clock);
    ASSERT_TRUE(timer.start(60000));
    EXPECT_FALSE(timer.start(60000));
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(clock.awaitWaiters(1));
        clock.advance(60s);
        // The tick has run once the timer waits again.
        ASSERT_TRUE(clock.awaitWaiters(1));
        EXPECT_EQ(timer.ticks.load(), i);
    }
    clock.advance(30s);
    ASSERT_TRUE(clock.awaitWaiters(1));
    EXPECT_EQ(timer.ticks.load(), 3);
    timer.stop();
    EXPECT_FALSE(timer.running());
}

// A module's timer runs on one of the module's threads, so the wait at
// plug-in exit covers it.
TEST(CoreTimer, AModuleTimerThreadBelongsToTheModulesThreadGroup) {
    ManualTimeSource clock;
    const std::size_t before = corethreadgroup::module().running();
    CountingTimer timer(clock, corethread::factory());
    ASSERT_TRUE(timer.start(1000));
    EXPECT_EQ(corethreadgroup::module().running(), before + 1);
    timer.stop();
    corethreadgroup::module().wait();
    EXPECT_EQ(corethreadgroup::module().running(), 0u);
}

}  // namespace
}  // namespace CORE
