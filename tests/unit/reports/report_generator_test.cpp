// The session report thread in virtual time: the first request at once, each
// wait within 75-100% of the interval, no request during a migration, and a
// stop that ends a wait at once.

#include "config/mqttConfig.h"
#include "reports/AsyncReportGenerator.h"
#include "support/ManualTimeSource.h"
#include "support/StubWorker.h"
#include "support/TestRegistry.h"

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

class ReportGeneratorTest : public ::testing::Test {
protected:
    void set(const std::string& name, const std::string& value) {
        reg_.setString(test::kNodeManagerKey, name, value);
    }
    bool requested(std::chrono::milliseconds limit = 10s) {
        const auto m = desktopManager_.nextMessage(limit);
        return m && m->operation == L"SendSessionReport" && m->request.empty();
    }
    // Moves virtual time once the thread waits, and waits until it waits again.
    void advance(std::chrono::milliseconds by) {
        ASSERT_TRUE(clock_.awaitWaiters(1));
        clock_.advance(by);
        ASSERT_TRUE(clock_.awaitWaiters(1));
    }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::ManualTimeSource clock_;
    test::StubWorker desktopManager_{L"DesktopManager"};
    AsyncReportGenerator generator_{[this] { return cfg_; }, clock_};
};

TEST_F(ReportGeneratorTest, EveryWaitLiesWithinItsIntervalAndOutOfRangeMeansTheDefault) {
    set("AsyncSessionSeconds", "8");
    generator_.Start();
    EXPECT_TRUE(requested());
    for (int i = 0; i < 5; ++i) {
        advance(5999ms);
        EXPECT_FALSE(requested(50ms)) << "before 75% of the interval";
        advance(2001ms);
        EXPECT_TRUE(requested()) << "by the full interval";
    }
    generator_.Stop();

    set("AsyncSessionSeconds", "601");  // out of range: 150 s
    generator_.Start();
    EXPECT_TRUE(requested());
    advance(112499ms);
    EXPECT_FALSE(requested(50ms));
    advance(37501ms);
    EXPECT_TRUE(requested());
}

TEST_F(ReportGeneratorTest, NothingIsRequestedDuringAMigrationButTheScheduleGoesOn) {
    set("AsyncSessionSeconds", "5");
    reg_.setDword(test::kNodeManagerKey, "mqtt_MigrationStatus", 1);
    generator_.Start();
    advance(5s);
    advance(5s);
    EXPECT_FALSE(requested(50ms));
    EXPECT_TRUE(reg_.log().waitFor(
        "AsyncReportGenerator::ReportGeneratorThreadProc(): Migration in progress, skipping "
        "session report",
        1s, 3));
    reg_.setDword(test::kNodeManagerKey, "mqtt_MigrationStatus", 5);  // committed
    advance(5s);
    EXPECT_TRUE(requested());
}

TEST_F(ReportGeneratorTest, StopEndsAWaitAtOnceAndAClosedGeneratorStaysStopped) {
    set("AsyncSessionSeconds", "600");
    generator_.Start();
    generator_.Start();
    EXPECT_TRUE(requested());
    ASSERT_TRUE(clock_.awaitWaiters(1));
    generator_.Stop();  // virtual time stands still: only the stop can end the wait
    EXPECT_FALSE(generator_.running());
    EXPECT_EQ(clock_.waiters(), 0u);
    clock_.advance(600s);
    EXPECT_FALSE(requested(50ms));
    generator_.Stop();
    auto& log = reg_.log();
    EXPECT_TRUE(log.waitFor(
        "AsyncReportGenerator::Start(): Async report generator thread already started", 1s));
    EXPECT_TRUE(log.waitFor("AsyncReportGenerator::Stop(): Stopped Report Generator thread", 1s));
    EXPECT_TRUE(log.waitFor(
        "AsyncReportGenerator::Stop(): Async report generator thread not running.", 1s));

    generator_.Close();
    generator_.Restart();
    EXPECT_FALSE(generator_.running());
    generator_.Open();
    set("AsyncSessionSeconds", "5");
    generator_.Restart();  // the new interval applies at once
    EXPECT_TRUE(requested());
    advance(5s);
    EXPECT_TRUE(requested());
}

}  // namespace
}  // namespace ndpx
