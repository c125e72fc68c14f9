#pragma once
// An in-memory MQTT client for unit tests of the session logic: records what
// the manager asks of the library and lets a test play the library's
// callbacks. Like the real library it holds its own lock while it calls
// back, and calls nothing of a client once that client is destroyed, so a
// test that fires callbacks from its own threads sees the same lock order
// as production.

#include "mqtt/MqttClient.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace ndpx::test {

struct FakeMqttState {
    struct Published {
        std::string topic;
        std::string payload;
        int qos;
        bool retained;
    };
    std::mutex mutex;  // the library's own lock
    std::condition_variable changed;
    std::vector<Published> published;
    std::vector<std::string> subscribed;
    std::vector<std::string> unsubscribed;
    std::vector<MqttClient::SuccessFn> subscribeSuccess;
    MqttCreateOptions created;
    MqttConnectOptions connected;
    MqttClientListener* listener = nullptr;  // of the live client, if any
    bool isConnected = false;
    int createRc = 0;
    int attachRc = 0;
    int attachStep = 0;
    int connectRc = 0;
    int disconnectRc = 0;
    int publishRc = 0;
    int nextToken = 1;
    int clients = 0;

    // Plays a callback of the live client, with the library's lock held;
    // false when no client is alive.
    bool fire(const std::function<void(MqttClientListener&)>& callback) {
        std::lock_guard lock(mutex);
        if (listener == nullptr) {
            return false;
        }
        callback(*listener);
        return true;
    }
    // The connection succeeds: the connect call's callback, then the
    // connected callback, as the library calls them.
    bool connectionUp(bool sessionPresent = true) {
        {
            std::lock_guard lock(mutex);
            isConnected = true;
        }
        return fire([sessionPresent](MqttClientListener& l) {
            l.onConnectSuccess();
            l.onConnected("connect", sessionPresent);
        });
    }
    bool connectionDown(const std::string& cause) {
        {
            std::lock_guard lock(mutex);
            isConnected = false;
        }
        return fire([&](MqttClientListener& l) { l.onConnectionLost(cause); });
    }
    void set(int FakeMqttState::*field, int value) {
        std::lock_guard lock(mutex);
        this->*field = value;
    }

    // Waits (bounded) until `count` messages were published on `topic`.
    bool waitPublished(const std::string& topic, std::size_t count,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, [&] {
            std::size_t n = 0;
            for (const auto& p : published) {
                n += p.topic == topic ? 1 : 0;
            }
            return n >= count;
        });
    }
    bool waitSubscribed(std::size_t count,
                        std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, [&] { return subscribed.size() >= count; });
    }

    std::vector<Published> publishedOn(const std::string& topic) {
        std::lock_guard lock(mutex);
        std::vector<Published> out;
        for (const auto& p : published) {
            if (p.topic == topic) {
                out.push_back(p);
            }
        }
        return out;
    }
    std::vector<MqttClient::SuccessFn> subscribeCallbacks() {
        std::lock_guard lock(mutex);
        return subscribeSuccess;
    }
};

class FakeMqttClient : public MqttClient {
public:
    FakeMqttClient(FakeMqttState& s, MqttClientListener& listener) : s_(s) {
        std::lock_guard lock(s_.mutex);
        s_.listener = &listener;
        ++s_.clients;
    }
    ~FakeMqttClient() override {
        std::lock_guard lock(s_.mutex);
        s_.listener = nullptr;
        s_.isConnected = false;
    }
    int attachCallbacks(int& failedStep) override {
        std::lock_guard lock(s_.mutex);
        failedStep = s_.attachStep;
        return s_.attachRc;
    }
    int connect(const MqttConnectOptions& o) override {
        std::lock_guard lock(s_.mutex);
        s_.connected = o;
        return s_.connectRc;
    }
    int disconnect(int) override {
        std::lock_guard lock(s_.mutex);
        if (s_.disconnectRc == 0 && s_.listener != nullptr) {
            s_.isConnected = false;
            s_.listener->onDisconnectSuccess();
        }
        return s_.disconnectRc;
    }
    bool isConnected() override {
        std::lock_guard lock(s_.mutex);
        return s_.isConnected;
    }
    int publish(const std::string& topic, const std::string& payload, int qos, bool retained,
                int& token, SuccessFn, FailureFn) override {
        std::lock_guard lock(s_.mutex);
        if (s_.publishRc != 0) {
            return s_.publishRc;
        }
        s_.published.push_back({topic, payload, qos, retained});
        token = s_.nextToken++;
        s_.changed.notify_all();
        return 0;
    }
    int subscribe(const std::string& topic, int, SuccessFn onSuccess, FailureFn) override {
        std::lock_guard lock(s_.mutex);
        s_.subscribed.push_back(topic);
        s_.subscribeSuccess.push_back(std::move(onSuccess));
        s_.changed.notify_all();
        return 0;
    }
    int unsubscribe(const std::string& topic, SuccessFn, FailureFn) override {
        std::lock_guard lock(s_.mutex);
        s_.unsubscribed.push_back(topic);
        return 0;
    }

private:
    FakeMqttState& s_;
};

inline MqttClientFactory fakeClientFactory(FakeMqttState& s) {
    return [&s](const MqttCreateOptions& o, MqttClientListener& l,
                int& rc) -> std::unique_ptr<MqttClient> {
        {
            std::lock_guard lock(s.mutex);
            s.created = o;
            rc = s.createRc;
        }
        if (rc != 0) {
            return nullptr;
        }
        return std::make_unique<FakeMqttClient>(s, l);
    };
}

}  // namespace ndpx::test
