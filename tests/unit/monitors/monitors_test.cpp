// The restart and Azure AD join monitors in virtual time: what they publish,
// when, and how a stop ends them.

#include "config/mqttConfig.h"
#include "monitors/AzureADMonitor.h"
#include "monitors/RestartMonitor.h"
#include "support/ManualTimeSource.h"
#include "support/TestRegistry.h"

#include <gtest/gtest.h>

#include <deque>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

struct Published {
    std::string status;
    int detail;
    std::string text;
    bool operator==(const Published&) const = default;
};

class MonitorTest : public ::testing::Test {
protected:
    StatusPublisher publisher() {
        return [this](const std::string& status, int detail, const std::string& text) {
            const std::lock_guard lock(mutex_);
            published_.push_back({status, detail, text});
            changed_.notify_all();
        };
    }
    std::vector<Published> published() {
        const std::lock_guard lock(mutex_);
        return published_;
    }
    bool awaitPublished(std::size_t n) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return published_.size() >= n; });
    }
    // Moves virtual time once the thread waits; with `waitsAgain`, returns
    // once it waits again, so that whatever it was to publish is published.
    void advance(std::chrono::milliseconds by, bool waitsAgain = true) {
        ASSERT_TRUE(clock_.awaitWaiters(1));
        clock_.advance(by);
        if (waitsAgain) {
            ASSERT_TRUE(clock_.awaitWaiters(1));
        }
    }
    bool logged(std::string_view text) { return reg_.log().waitFor(text, 5s); }

    test::TestRegistry reg_;
    test::ManualTimeSource clock_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Published> published_;
};

TEST_F(MonitorTest, RestartIntervalIsClampedToFiveSecondsToTenMinutes) {
    RestartMonitor monitor(publisher(), clock_);
    EXPECT_EQ(monitor.pollInterval(), 30);
    for (const auto& [given, kept] : {std::pair{0, 5}, {3, 5}, {5, 5}, {600, 600}, {1000, 600}}) {
        monitor.SetPollInterval(given);
        EXPECT_EQ(monitor.pollInterval(), kept) << given;
    }
}

TEST_F(MonitorTest, RestartPublishesInitAfterEachJitteredWaitUntilItsOneStop) {
    RestartMonitor monitor(publisher(), clock_);
    monitor.Stop();  // before any start: does not keep it from starting
    EXPECT_TRUE(logged("RestartMonitor::Stop(): Thread is not running"));
    monitor.SetPollInterval(8);
    monitor.Start();
    monitor.Start();
    EXPECT_TRUE(logged("RestartMonitor::Start(): Thread is already running."));
    advance(5999ms);
    EXPECT_TRUE(published().empty()) << "not at start, nor before 75% of the interval";
    advance(2001ms);
    advance(8s);
    const Published init{"INIT", kStatusDetailNone, ""};
    EXPECT_EQ(published(), (std::vector{init, init}));

    monitor.Stop();  // virtual time stands still: only the stop ends the wait
    EXPECT_TRUE(logged("RestartMonitor::Stop(): Thread has been stopped"));
    EXPECT_EQ(clock_.waiters(), 0u);
    monitor.Start();
    EXPECT_TRUE(logged("RestartMonitor::Start(): Restart monitor has already been stopped"));
    clock_.advance(600s);
    EXPECT_EQ(clock_.waiters(), 0u);
    EXPECT_EQ(published().size(), 2u);
}

TEST_F(MonitorTest, RestartStoppedWhileWaitingPublishesNothing) {
    RestartMonitor monitor(publisher(), clock_);
    monitor.SetPollInterval(5);
    monitor.Start();
    advance(3749ms);  // just short of the shortest wait
    monitor.Stop();
    EXPECT_EQ(clock_.waiters(), 0u);
    EXPECT_TRUE(published().empty());
}

// Answers the monitor's queries from a script; the last answer repeats.
class ScriptedAadJoinQuery : public AadJoinQuery {
public:
    explicit ScriptedAadJoinQuery(std::deque<AadJoinInfo> script) : script_(std::move(script)) {}
    bool available() override { return true; }
    AadJoinInfo query() override {
        ++calls;
        AadJoinInfo next = script_.front();
        if (script_.size() > 1) {
            script_.pop_front();
        }
        return next;
    }
    std::atomic<int> calls{0};

private:
    std::deque<AadJoinInfo> script_;
};

class AzureADMonitorTest : public MonitorTest {
protected:
    AzureADMonitor& monitor(std::deque<AadJoinInfo> script, int interval = 60, int maximum = 300) {
        reg_.setDword(test::kNodeManagerKey, "mqtt_AzureADJoinQueryInterval", interval);
        reg_.setDword(test::kNodeManagerKey, "mqtt_AzureADJoinMaxInterval", maximum);
        auto query = std::make_unique<ScriptedAadJoinQuery>(std::move(script));
        query_ = query.get();
        monitor_.emplace(
            std::move(query), [this] { return config_; }, publisher(), clock_);
        return *monitor_;
    }
    bool exited() { return logged("AzureADMonitor::AzureADMonitorThreadProc(): Exiting thread"); }

    std::shared_ptr<mqttConfig> config_ = std::make_shared<mqttConfig>(reg_.shared());
    ScriptedAadJoinQuery* query_ = nullptr;
    std::optional<AzureADMonitor> monitor_;
};

AadJoinInfo notJoined() {
    return {.error = "not yet"};
}
AadJoinInfo workplace() {
    return {.type = AadJoinType::Workplace};
}

TEST_F(AzureADMonitorTest, WholeAttemptsOnlyAndTheLastErrorIsPublished) {
    monitor({notJoined()}, 60, 90).Start();
    EXPECT_TRUE(
        logged("Will query Azure AD Join status every 60 seconds, with max wait interval "
               "of 90 seconds"));
    EXPECT_TRUE(published().empty()) << "no query before the first wait";
    advance(60s, false);
    ASSERT_TRUE(awaitPublished(1));
    EXPECT_TRUE(exited());
    EXPECT_EQ(query_->calls, 1);
    EXPECT_TRUE(reg_.log().contains("Exhausted all attempts to check Azure AD join status"));
    EXPECT_EQ(published(), (std::vector<Published>{{"DOMAIN_ERR", kStatusDetailError,
                                                    "Device isn't joined to Azure AD, error : "
                                                    "not yet"}}));
}

TEST_F(AzureADMonitorTest, AJoinAtTheThirdPollIsPublishedWithTheDeviceIdAndEndsThePolling) {
    monitor({notJoined(), workplace(), {.type = AadJoinType::Device, .deviceId = "d-7"}}).Start();
    advance(60s);
    advance(60s);
    advance(60s, false);
    ASSERT_TRUE(awaitPublished(1));
    EXPECT_TRUE(exited());
    EXPECT_TRUE(reg_.log().contains("Attempt num=3 to check Azure AD join status"));
    EXPECT_EQ(published(), (std::vector<Published>{{"AVAILABLE", kStatusDetailDeviceId, "d-7"}}));
    clock_.advance(600s);
    EXPECT_EQ(query_->calls, 3);
}

TEST_F(AzureADMonitorTest, AWorkplaceJoinNeverCountsAndOtherResultsGiveTheirText) {
    monitor({workplace()}, 30, 60).Start();
    advance(30s);
    advance(30s, false);
    ASSERT_TRUE(awaitPublished(1));
    EXPECT_EQ(published(), (std::vector<Published>{{"DOMAIN_ERR", kStatusDetailError,
                                                    "Unexpected join type (Workplace) found"}}));
    EXPECT_EQ(query_->calls, 2);

    for (const auto& [info, text] :
         {std::pair{AadJoinInfo{.failed = true, .error = "denied"},
                    "NetGetAadJoinInformation failed, error : denied"},
          {AadJoinInfo{.type = AadJoinType::Unknown}, "Unexpected join type (Unknown) found"},
          {AadJoinInfo{.type = AadJoinType::Device}, "DeviceId was retrieved but it was empty"}}) {
        std::string joinInfo, error;
        EXPECT_FALSE(monitor({info}).IsDeviceAzureADJoined(joinInfo, error));
        EXPECT_EQ(error, text);
        EXPECT_TRUE(
            reg_.log().contains(std::string("AzureADMonitor::IsDeviceAzureADJoined(): ") + text));
    }
}

TEST_F(AzureADMonitorTest, StopEndsAWaitAndAnUnavailableQueryNeverStarts) {
    auto& polling = monitor({notJoined()});
    polling.Start();
    polling.Start();
    EXPECT_TRUE(logged("AzureADMonitor::Start(): Thread is already running."));
    ASSERT_TRUE(clock_.awaitWaiters(1));
    polling.Stop();
    EXPECT_TRUE(logged("AzureADMonitor::Stop(): AzureADMonitor has been stopped"));
    EXPECT_TRUE(exited());
    EXPECT_EQ(query_->calls, 0);

    AzureADMonitor unavailable(
        makeAadJoinQuery(), [this] { return config_; }, publisher(), clock_);
    EXPECT_TRUE(logged("AzureADMonitor::Init(): Failed to load Netpi32.dll"));
    EXPECT_FALSE(unavailable.available());
    std::string joinInfo, error;
    EXPECT_FALSE(unavailable.IsDeviceAzureADJoined(joinInfo, error));
    EXPECT_EQ(error, "Azure AD join is unsupported on this device");
    unavailable.Start();
    EXPECT_TRUE(logged("AzureADMonitor::Start(): Azure AD join status cannot be queried"));
    unavailable.Stop();
    EXPECT_TRUE(logged("AzureADMonitor::Stop(): Thread is not running"));
    EXPECT_EQ(clock_.waiters(), 0u);
    EXPECT_TRUE(published().empty());
}

}  // namespace
}  // namespace ndpx
