#pragma once
// The MQTT client's lifetime. One client at a time: it is created, connected,
// disconnected and destroyed with `clientLock` held as writer; every other
// use of it (is it connected, publish, subscribe) holds the lock as reader,
// so no use overlaps its destruction.
//
// The library calls back on its own threads, sometimes holding its own lock.
// Each client gets a listener of its own here that copies what it is given
// and hands it to `handOff` (the manager's executor), so no library thread
// ever takes one of our locks or waits; connection events of a client that
// has since been replaced are dropped there. The one exception is the
// disconnect completion, which only sets the event a tear-down waits on: it
// must not queue behind the work it is waited for by.

#include "mqtt/MqttClient.h"

#include <mfw/coreevent.h>
#include <mfw/corelock.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ndpx {

class MqttConnection {
public:
    // Runs the work on another thread, in order; false when that is stopping.
    using HandOff = std::function<bool(std::function<void()>)>;
    // Returned by the client operations when there is no client.
    static constexpr int kNoClient = INT_MIN;

    // `listener` receives the client's callbacks through `handOff`.
    MqttConnection(MqttClientFactory factory, MqttClientListener& listener, HandOff handOff,
                   platform::TimeSource& time);
    ~MqttConnection();
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    enum class Opened { Started, NotCreated, CallbacksRefused, ConnectRefused };
    // Replaces the client, if any, by a new one and starts connecting it.
    // A client that another caller made in the meantime is disconnected
    // (within `disconnectTimeoutMs`) and destroyed first.
    Opened open(const MqttCreateOptions& create, const MqttConnectOptions& options,
                std::uint32_t disconnectTimeoutMs) MFW_EXCLUDES(clientLock_);

    bool hasClient() const MFW_EXCLUDES(clientLock_);
    bool isConnected() const MFW_EXCLUDES(clientLock_);
    // Disconnects and waits up to `timeoutMs` for the library to confirm.
    bool disconnect(std::uint32_t timeoutMs) MFW_EXCLUDES(clientLock_);
    // Disconnects as above, then destroys the client. The disconnect's result.
    bool tearDown(std::uint32_t timeoutMs) MFW_EXCLUDES(clientLock_);

    // The client's operations; kNoClient without a client. Their callbacks
    // run through the hand-off, off the library's threads.
    int publish(const std::string& topic, const std::string& payload, int qos, bool retained,
                int& token, MqttClient::SuccessFn onSuccess, MqttClient::FailureFn onFailure)
        MFW_EXCLUDES(clientLock_);
    int subscribe(const std::string& topic, int qos, MqttClient::SuccessFn onSuccess,
                  MqttClient::FailureFn onFailure) MFW_EXCLUDES(clientLock_);
    int unsubscribe(const std::string& topic, MqttClient::SuccessFn onSuccess,
                    MqttClient::FailureFn onFailure) MFW_EXCLUDES(clientLock_);

private:
    class Events;

    bool disconnectLocked(std::uint32_t timeoutMs) MFW_REQUIRES(clientLock_);
    void destroyLocked() MFW_REQUIRES(clientLock_);
    MqttClient::SuccessFn offLibrary(MqttClient::SuccessFn fn) const;
    MqttClient::FailureFn offLibrary(MqttClient::FailureFn fn) const;

    const MqttClientFactory factory_;
    MqttClientListener& listener_;
    const HandOff handOff_;
    // Set only by the library's disconnect completion.
    CORE::coreevent disconnectEvent_;
    // Which client is current; events of earlier ones are stale.
    std::atomic<std::uint64_t> generation_{0};

    mutable CORE::SharedMutex clientLock_;
    std::unique_ptr<Events> events_ MFW_GUARDED_BY(clientLock_);
    std::unique_ptr<MqttClient> client_ MFW_GUARDED_BY(clientLock_);  // goes before events_
};

}  // namespace ndpx
