#include "mqtt/MqttConnection.h"

#include <mfw/moduleLog.h>

namespace ndpx {

// The listener of one client. Runs on the library's threads: copies, hands
// off and returns.
class MqttConnection::Events : public MqttClientListener {
public:
    Events(MqttConnection& owner, std::uint64_t generation)
        : owner_(owner), generation_(generation) {}

    void onConnectionLost(const std::string& cause) override {
        ifCurrent([cause](MqttClientListener& l) { l.onConnectionLost(cause); });
    }
    void onMessageArrived(std::string topic, std::string payload) override {
        // A message is never stale: the library acknowledges it once this
        // returns, so it must be handled whichever client brought it.
        owner_.handOff_([&l = owner_.listener_, topic = std::move(topic),
                         payload = std::move(payload)]() mutable {
            l.onMessageArrived(std::move(topic), std::move(payload));
        });
    }
    void onDeliveryComplete(int token) override {
        // Only a debug line comes of it: no wake-up of the dispatch thread
        // per publication unless that line is wanted.
        if (CORE::isLoggingAtLevel(CORE::kLogDebug)) {
            owner_.handOff_([&l = owner_.listener_, token] { l.onDeliveryComplete(token); });
        }
    }
    void onConnected(const std::string& cause, bool sessionPresent) override {
        ifCurrent([cause, sessionPresent](MqttClientListener& l) {
            l.onConnected(cause, sessionPresent);
        });
    }
    void onDisconnectReceived(int reasonCode) override {
        ifCurrent([reasonCode](MqttClientListener& l) { l.onDisconnectReceived(reasonCode); });
    }
    void onConnectSuccess() override {
        ifCurrent([](MqttClientListener& l) { l.onConnectSuccess(); });
    }
    void onConnectFailure(const MqttFailure& failure) override {
        ifCurrent([failure](MqttClientListener& l) { l.onConnectFailure(failure); });
    }
    void onDisconnectSuccess() override {
        MFW_LOG(CORE::kLogDebug, "MqttManager::OnDisconnectSuccess(): Disconnect succeeded");
        owner_.disconnectEvent_.set();
    }
    void onDisconnectFailure(const MqttFailure& failure) override {
        owner_.handOff_([&l = owner_.listener_, failure] { l.onDisconnectFailure(failure); });
    }
    void onSslError(const std::string& text) override {
        ifCurrent([text](MqttClientListener& l) { l.onSslError(text); });
    }

private:
    template <class Fn>
    void ifCurrent(Fn fn) {
        owner_.handOff_([&owner = owner_, generation = generation_, fn = std::move(fn)] {
            if (owner.generation_.load() == generation) {
                fn(owner.listener_);
            }
        });
    }

    MqttConnection& owner_;
    const std::uint64_t generation_;
};

MqttConnection::MqttConnection(MqttClientFactory factory, MqttClientListener& listener,
                               HandOff handOff, platform::TimeSource& time)
    : factory_(std::move(factory)),
      listener_(listener),
      handOff_(std::move(handOff)),
      disconnectEvent_(CORE::coreevent::Reset::Manual, false, time) {}

MqttConnection::~MqttConnection() {
    CORE::WriterLock lock(clientLock_);
    destroyLocked();
}

MqttClient::SuccessFn MqttConnection::offLibrary(MqttClient::SuccessFn fn) const {
    if (!fn) {
        return {};
    }
    return [handOff = handOff_, fn = std::move(fn)](int token) {
        handOff([fn, token] { fn(token); });
    };
}

MqttClient::FailureFn MqttConnection::offLibrary(MqttClient::FailureFn fn) const {
    if (!fn) {
        return {};
    }
    return [handOff = handOff_, fn = std::move(fn)](const MqttFailure& failure) {
        handOff([fn, failure] { fn(failure); });
    };
}

MqttConnection::Opened MqttConnection::open(const MqttCreateOptions& create,
                                            const MqttConnectOptions& options,
                                            std::uint32_t disconnectTimeoutMs) {
    CORE::WriterLock lock(clientLock_);
    if (client_) {
        disconnectLocked(disconnectTimeoutMs);
        destroyLocked();
    }
    auto events = std::make_unique<Events>(*this, ++generation_);
    int rc = 0;
    auto client = factory_(create, *events, rc);
    if (!client) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::Connect(): Failed to create client object, return code %d", rc);
        return Opened::NotCreated;
    }
    MFW_LOG(CORE::kLogInfo, "MqttManager::Connect(): MQTT handle: %p",
            static_cast<void*>(client.get()));
    client_ = std::move(client);
    events_ = std::move(events);
    int step = 0;
    rc = client_->attachCallbacks(step);
    if (rc != kMqttSuccess) {
        if (step == 1) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set callbacks, return code %d", rc);
        } else if (step == 2) {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set reconnected callback, return code %d",
                    rc);
        } else {
            MFW_LOG(CORE::kLogError,
                    "MqttManager::Connect(): Failed to set disconnected callback, return code %d",
                    rc);
        }
        return Opened::CallbacksRefused;
    }
    rc = client_->connect(options);
    if (rc != kMqttSuccess) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::Connect(): Failed to connect to MQTT broker, return code %d", rc);
        return Opened::ConnectRefused;
    }
    return Opened::Started;
}

bool MqttConnection::hasClient() const {
    CORE::ReaderLock lock(clientLock_);
    return static_cast<bool>(client_);
}

bool MqttConnection::isConnected() const {
    CORE::ReaderLock lock(clientLock_);
    return client_ && client_->isConnected();
}

bool MqttConnection::disconnect(std::uint32_t timeoutMs) {
    CORE::WriterLock lock(clientLock_);
    return disconnectLocked(timeoutMs);
}

bool MqttConnection::disconnectLocked(std::uint32_t timeoutMs) {
    if (!client_ || !client_->isConnected()) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Not connected, unable to disconnect");
        return true;
    }
    MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Disconnecting from MQTT Server.");
    disconnectEvent_.reset();
    const int rc = client_->disconnect(static_cast<int>(timeoutMs));
    if (rc == kMqttAlreadyDisconnected) {
        MFW_LOG(CORE::kLogDebug, "MqttManager::Disconnect(): Client was already disconnected.");
        return true;
    }
    if (rc != kMqttSuccess) {
        MFW_LOG(CORE::kLogError, "MqttManager::Disconnect(): Disconnect failed, return code %d",
                rc);
        return false;
    }
    // The completion sets the event from the library's thread, taking no lock.
    return disconnectEvent_.waitMs(timeoutMs);
}

bool MqttConnection::tearDown(std::uint32_t timeoutMs) {
    CORE::WriterLock lock(clientLock_);
    const bool disconnected = disconnectLocked(timeoutMs);
    if (!disconnected) {
        MFW_LOG(CORE::kLogError,
                "MqttManager::TearDownConnection(): Failed to disconnect from the MQTT Server.");
    }
    destroyLocked();
    return disconnected;
}

void MqttConnection::destroyLocked() {
    // The library calls nothing of a client after its destruction; its
    // listener goes after it. What the client said before it went, and is
    // still queued, is stale now.
    client_.reset();
    events_.reset();
    ++generation_;
}

int MqttConnection::publish(const std::string& topic, const std::string& payload, int qos,
                            bool retained, int& token, MqttClient::SuccessFn onSuccess,
                            MqttClient::FailureFn onFailure) {
    CORE::ReaderLock lock(clientLock_);
    if (!client_) {
        return kNoClient;
    }
    return client_->publish(topic, payload, qos, retained, token, offLibrary(std::move(onSuccess)),
                            offLibrary(std::move(onFailure)));
}

int MqttConnection::subscribe(const std::string& topic, int qos, MqttClient::SuccessFn onSuccess,
                              MqttClient::FailureFn onFailure) {
    CORE::ReaderLock lock(clientLock_);
    if (!client_) {
        return kNoClient;
    }
    return client_->subscribe(topic, qos, offLibrary(std::move(onSuccess)),
                              offLibrary(std::move(onFailure)));
}

int MqttConnection::unsubscribe(const std::string& topic, MqttClient::SuccessFn onSuccess,
                                MqttClient::FailureFn onFailure) {
    CORE::ReaderLock lock(clientLock_);
    if (!client_) {
        return kNoClient;
    }
    return client_->unsubscribe(topic, offLibrary(std::move(onSuccess)),
                                offLibrary(std::move(onFailure)));
}

}  // namespace ndpx
