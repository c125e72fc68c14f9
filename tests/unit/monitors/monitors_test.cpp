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
using Published = std::vector<std::tuple<std::string, int, std::string>>;

class MonitorTest : public ::testing::Test {
protected:
    StatusPublisher publisher() {
        return [this](const std::string& status, int detail, const std::string& text) {
            const std::lock_guard lock(mutex_);
            published_.emplace_back(status, detail, text);
        };
    }
    Published published() {
        const std::lock_guard lock(mutex_);
        return published_;
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
    Published published_;
};

TEST_F(MonitorTest, RestartClampsItsIntervalAndPublishesInitAfterEachJitteredWaitUntilItsOneStop) {
    RestartMonitor monitor(publisher(), clock_);
    EXPECT_EQ(monitor.pollInterval(), 30);
    for (const auto& [given, kept] : {std::pair{0, 5}, {3, 5}, {600, 600}, {1000, 600}, {8, 8}}) {
        monitor.SetPollInterval(given);
        EXPECT_EQ(monitor.pollInterval(), kept) << given;
    }
    monitor.Stop();  // before any start: does not keep it from starting
    EXPECT_TRUE(logged("RestartMonitor::Stop(): Thread is not running"));
    monitor.Start();
    monitor.Start();
    EXPECT_TRUE(logged("RestartMonitor::Start(): Thread is already running."));
    advance(5999ms);
    EXPECT_TRUE(published().empty()) << "not at start, nor before 75% of the interval";
    advance(2001ms);
    advance(8s);
    const Published twice{{"INIT", kStatusDetailNone, ""}, {"INIT", kStatusDetailNone, ""}};
    EXPECT_EQ(published(), twice);

    advance(5999ms);  // short of the next INIT: only the stop ends this wait
    monitor.Stop();
    EXPECT_TRUE(logged("RestartMonitor::Stop(): Thread has been stopped"));
    EXPECT_EQ(clock_.waiters(), 0u);
    monitor.Start();
    EXPECT_TRUE(logged("RestartMonitor::Start(): Restart monitor has already been stopped"));
    EXPECT_EQ(clock_.waiters(), 0u);
    EXPECT_EQ(published(), twice);
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

TEST_F(AzureADMonitorTest, AWorkplaceJoinNeverCountsAndOnlyWholeAttemptsAreMade) {
    monitor({{.type = AadJoinType::Workplace}}, 60, 90).Start();
    EXPECT_TRUE(
        logged("Will query Azure AD Join status every 60 seconds, with max wait interval "
               "of 90 seconds"));
    advance(60s, false);
    ASSERT_TRUE(exited());
    EXPECT_EQ(query_->calls, 1);
    EXPECT_TRUE(reg_.log().contains("Exhausted all attempts to check Azure AD join status"));
    EXPECT_EQ(
        published(),
        (Published{{"DOMAIN_ERR", kStatusDetailError, "Unexpected join type (Workplace) found"}}));
}

TEST_F(AzureADMonitorTest, AJoinAtTheThirdPollIsPublishedWithTheDeviceIdAndEndsThePolling) {
    monitor({{.error = "not yet"},
             {.error = "not yet"},
             {.type = AadJoinType::Device, .deviceId = "d-7"}})
        .Start();
    advance(60s);
    advance(60s);
    advance(60s, false);
    ASSERT_TRUE(exited());
    EXPECT_TRUE(reg_.log().contains("Attempt num=3 to check Azure AD join status"));
    EXPECT_EQ(published(), (Published{{"AVAILABLE", kStatusDetailDeviceId, "d-7"}}));
    clock_.advance(600s);
    EXPECT_EQ(query_->calls, 3);
}

TEST_F(AzureADMonitorTest, EachAnswerGivesItsTextAndAStopOrAnUnavailableQueryEndsPolling) {
    for (const auto& [info, text] :
         {std::pair{AadJoinInfo{.error = "not yet"},
                    "Device isn't joined to Azure AD, error : not yet"},
          {AadJoinInfo{.failed = true, .error = "denied"},
           "NetGetAadJoinInformation failed, error : denied"},
          {AadJoinInfo{.type = AadJoinType::Unknown}, "Unexpected join type (Unknown) found"},
          {AadJoinInfo{.type = AadJoinType::Device}, "DeviceId was retrieved but it was empty"}}) {
        std::string joinInfo, error;
        EXPECT_FALSE(monitor({info}).IsDeviceAzureADJoined(joinInfo, error));
        EXPECT_EQ(error, text);
        EXPECT_TRUE(reg_.log().contains(std::string("IsDeviceAzureADJoined(): ") + text));
    }
    monitor_->Start();
    monitor_->Start();
    EXPECT_TRUE(logged("AzureADMonitor::Start(): Thread is already running."));
    ASSERT_TRUE(clock_.awaitWaiters(1));
    monitor_->Stop();
    EXPECT_TRUE(logged("AzureADMonitor::Stop(): AzureADMonitor has been stopped"));
    EXPECT_TRUE(exited());

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
    EXPECT_EQ(query_->calls, 1);  // the direct question only: the stopped poll never asked
    EXPECT_TRUE(published().empty());
}

}  // namespace
}  // namespace ndpx
