// Stop racing the library's callbacks. Threads play the client library,
// firing connection flaps, messages, TLS errors and connect failures while
// holding the library's lock, as the real one does, and keep firing while
// the manager stops. A callback that took one of the manager's locks would
// deadlock with Stop's tear-down here; a shared value written without a lock
// would be a report of the race detector, under which CI runs this.

#include "fakes/FakeMqttClient.h"
#include "mqtt/MqttManager.h"
#include "support/MqttManagerPeer.h"
#include "support/TestRegistry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

const std::string kCommands = "desktop/e1/vm7/agent/sessions/commands";

class StopRaceTest : public ::testing::Test {
protected:
    StopRaceTest() {
        reg_.setString(test::kNodeManagerKey, "mqtt_EdgeId", "e1");
        reg_.setString(test::kNodeManagerKey, "mqtt_VmId", "vm7");
        reg_.setString(test::kNodeManagerKey, "mqtt_AgentIdentity", "e1t3_vm7");
        MqttManagerDependencies d;
        d.runRegistrationThread = false;
        d.config = [this] { return cfg_; };
        d.clientFactory = test::fakeClientFactory(fake_);
        d.connectionMaterial = [] {
            return std::optional(ConnectionMaterial{.endpointUrl = "ssl://127.0.0.1:1",
                                                    .clientId = "e1t3_vm7",
                                                    .bootstrapTopic = "desktop/bootstrap/vm7"});
        };
        manager_ = std::make_unique<MqttManager>(d);
    }

    // The library's threads: each plays one kind of callback until told to end.
    void startLibrary(int round) {
        fire([&](MqttClientListener& l) {
            l.onConnectSuccess();
            l.onConnected("up", true);
        });
        fire([&](MqttClientListener& l) { l.onConnectionLost("flap"); });
        fire([&, round, n = 0](MqttClientListener& l) mutable {
            l.onMessageArrived(kCommands, R"({"ID":")" + std::to_string(round) + "-" +
                                              std::to_string(++n) + R"(","COMMAND":"Echo"})");
        });
        fire([](MqttClientListener& l) {
            l.onSslError("certificate expired");
            l.onConnectFailure({-1, 0, "TLS handshake failed", 1});
        });
    }
    void fire(std::function<void(MqttClientListener&)> callback) {
        library_.emplace_back([this, callback = std::move(callback)] {
            while (running_) {
                fired_ += fake_.fire(callback) ? 1 : 0;
                std::this_thread::yield();
            }
        });
    }
    void stopLibrary() {
        running_ = false;
        for (auto& t : library_) {
            t.join();
        }
        library_.clear();
        running_ = true;
    }

    test::TestRegistry reg_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    test::FakeMqttState fake_;
    std::unique_ptr<MqttManager> manager_;
    std::atomic<bool> running_{true};
    std::atomic<int> fired_{0};
    std::vector<std::thread> library_;
};

TEST_F(StopRaceTest, StopEndsPromptlyWhileTheLibraryKeepsCallingBack) {
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        ASSERT_TRUE(manager_->Start());
        MqttManagerTestPeer(*manager_).markPaired();
        ASSERT_TRUE(manager_->ConfigureTopicNames());
        ASSERT_EQ(manager_->Connect(), 1);
        fired_ = 0;
        startLibrary(round);
        // Let the callbacks get going before the stop comes into them (healing
        // may take the client away for a while: then stop anyway).
        const auto busy = std::chrono::steady_clock::now() + 300ms;
        while (fired_ < 200 && std::chrono::steady_clock::now() < busy) {
            std::this_thread::yield();
        }
        auto stopped = std::async(std::launch::async, [&] { return manager_->Stop(); });
        const bool ended = stopped.wait_for(30s) == std::future_status::ready;
        stopLibrary();
        ASSERT_TRUE(ended) << "Stop hung";
        EXPECT_TRUE(stopped.get());
        EXPECT_EQ(manager_->GetState(), MQTT_STATE_STOPPING);
        // The client is gone, and nothing of the manager runs any more.
        EXPECT_FALSE(fake_.fire([](MqttClientListener&) {}));
        EXPECT_FALSE(manager_->IsConnected());
    }
    EXPECT_TRUE(reg_.log().contains("Healing the connection"));
    EXPECT_TRUE(reg_.log().contains("Processing command message"));
}

}  // namespace
}  // namespace ndpx
