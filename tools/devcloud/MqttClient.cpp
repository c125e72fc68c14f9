#include "devcloud/MqttClient.h"

#include "mqtt/MqttClient.h"

#include <platform/SocketTuning.h>

#include <MQTTProperties.h>

#include <stdexcept>
#include <utility>

namespace ndpx::devcloud {

bool topicMatches(const std::string& filter, const std::string& topic) {
    std::size_t f = 0;
    std::size_t t = 0;
    for (;;) {
        const std::size_t fEnd = std::min(filter.find('/', f), filter.size());
        const std::string_view level(filter.data() + f, fEnd - f);
        if (level == "#") {
            return true;
        }
        if (t > topic.size()) {
            return false;
        }
        const std::size_t tEnd = std::min(topic.find('/', t), topic.size());
        if (level != "+" && level != std::string_view(topic.data() + t, tEnd - t)) {
            return false;
        }
        const bool filterDone = fEnd == filter.size();
        const bool topicDone = tEnd == topic.size();
        if (filterDone || topicDone) {
            // "a/#" also matches "a".
            return filterDone == topicDone ||
                   (topicDone && filter.compare(fEnd, std::string::npos, "/#") == 0);
        }
        f = fEnd + 1;
        t = tEnd + 1;
    }
}

MqttClient::MqttClient(ClientOptions options) : options_(std::move(options)) {
    const std::string uri = std::string(options_.tls ? "ssl://" : "tcp://") + options_.host + ":" +
                            std::to_string(options_.port);
    // The library is set up once per process, shared with any session in it.
    initMqttClientLibrary();
    MQTTAsync_createOptions create = MQTTAsync_createOptions_initializer5;
    const bool persist = !options_.persistenceDir.empty();
    // The library takes a non-const folder name but only reads it.
    int rc = MQTTAsync_createWithOptions(
        &handle_, uri.c_str(), options_.clientId.c_str(),
        persist ? MQTTCLIENT_PERSISTENCE_DEFAULT : MQTTCLIENT_PERSISTENCE_NONE,
        persist ? const_cast<char*>(options_.persistenceDir.c_str()) : nullptr, &create);
    if (rc != MQTTASYNC_SUCCESS) {
        throw std::runtime_error("MQTTAsync_createWithOptions failed: " + std::to_string(rc));
    }
    rc = MQTTAsync_setCallbacks(handle_, this, &MqttClient::onConnectionLost,
                                &MqttClient::onMessage, nullptr);
    if (rc == MQTTASYNC_SUCCESS) {
        rc = MQTTAsync_setConnected(handle_, this, &MqttClient::onConnected);
    }
    if (rc != MQTTASYNC_SUCCESS) {
        MQTTAsync_destroy(&handle_);
        throw std::runtime_error("MQTTAsync_setCallbacks failed: " + std::to_string(rc));
    }
}

MqttClient::~MqttClient() {
    if (MQTTAsync_isConnected(handle_)) {
        disconnect(std::chrono::seconds(2));
    }
    // No callback runs after destroy; Ops still listed are freed with ops_.
    MQTTAsync_destroy(&handle_);
}

void MqttClient::setHandler(Handler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

MqttClient::Op* MqttClient::newOp() {
    std::lock_guard lock(mutex_);
    ops_.push_back(Op{this});
    return &ops_.back();
}

bool MqttClient::awaitOp(Op* op, std::chrono::milliseconds limit, const char* what) {
    std::unique_lock lock(mutex_);
    cv_.wait_for(lock, limit, [&] { return op->done || cancelled_; });
    const bool ok = op->done && op->ok;
    if (!op->done) {
        lastError_ = std::string(what) + " timed out";
        op->abandoned = true;  // the callback frees it, or destroy does
        if (op == connectOp_) {
            connectOp_ = nullptr;
            ops_.remove_if([op](const Op& o) { return &o == op; });
        }
        return false;
    }
    ops_.remove_if([op](const Op& o) { return &o == op; });
    return ok;
}

void MqttClient::finishLocked(Op* op, bool ok, int code, int reason, const char* message) {
    if (!ok) {
        lastError_ = "code " + std::to_string(code) + ", reason " + std::to_string(reason) +
                     (message != nullptr ? std::string(": ") + message : std::string());
    }
    if (op->abandoned) {
        ops_.remove_if([op](const Op& o) { return &o == op; });
        return;
    }
    op->done = true;
    op->ok = ok;
    op->code = code;
    op->reason = reason;
    cv_.notify_all();
}

void MqttClient::onSuccess(void* context, MQTTAsync_successData5* response) {
    auto* op = static_cast<Op*>(context);
    MqttClient* self = op->owner;
    // A refused subscription is reported as a success with a failure code.
    const int reason = response != nullptr ? static_cast<int>(response->reasonCode) : 0;
    std::lock_guard lock(self->mutex_);
    self->finishLocked(op, reason < 0x80, 0, reason, reason < 0x80 ? nullptr : "refused");
}

void MqttClient::onFailure(void* context, MQTTAsync_failureData5* response) {
    auto* op = static_cast<Op*>(context);
    MqttClient* self = op->owner;
    std::lock_guard lock(self->mutex_);
    self->finishLocked(op, false, response != nullptr ? response->code : -1,
                       response != nullptr ? static_cast<int>(response->reasonCode) : 0,
                       response != nullptr ? response->message : nullptr);
}

void MqttClient::onConnectSuccess(void* context, MQTTAsync_successData5* response) {
    auto* self = static_cast<MqttClient*>(context);
    std::lock_guard lock(self->mutex_);
    self->sessionPresent_ = response != nullptr && response->alt.connect.sessionPresent != 0;
    if (self->connectOp_ != nullptr) {
        self->finishLocked(self->connectOp_, true, 0, 0, nullptr);
        self->connectOp_ = nullptr;
    }
}

void MqttClient::onConnectFailure(void* context, MQTTAsync_failureData5* response) {
    auto* self = static_cast<MqttClient*>(context);
    std::lock_guard lock(self->mutex_);
    if (self->connectOp_ != nullptr) {
        self->finishLocked(self->connectOp_, false, response != nullptr ? response->code : -1,
                           response != nullptr ? static_cast<int>(response->reasonCode) : 0,
                           response != nullptr ? response->message : nullptr);
        self->connectOp_ = nullptr;
    }
}

void MqttClient::onConnected(void* context, char* cause) {
    auto* self = static_cast<MqttClient*>(context);
    MQTTAsync_free(cause);
    // Paho creates a new socket on every reconnect.
    self->applyNoDelay();
    std::lock_guard lock(self->mutex_);
    self->connected_ = true;
    self->cv_.notify_all();
}

void MqttClient::onConnectionLost(void* context, char* cause) {
    auto* self = static_cast<MqttClient*>(context);
    std::lock_guard lock(self->mutex_);
    self->connected_ = false;
    self->lastError_ = std::string("connection lost") + (cause != nullptr ? ": " : "") +
                       (cause != nullptr ? cause : "");
    MQTTAsync_free(cause);
    self->cv_.notify_all();
}

int MqttClient::onMessage(void* context, char* topicName, int topicLen,
                          MQTTAsync_message* message) {
    auto* self = static_cast<MqttClient*>(context);
    Message m;
    m.topic = topicLen > 0 ? std::string(topicName, static_cast<std::size_t>(topicLen))
                           : std::string(topicName);
    m.payload.assign(static_cast<const char*>(message->payload),
                     static_cast<std::size_t>(message->payloadlen));
    m.qos = message->qos;
    m.retained = message->retained != 0;
    MQTTAsync_freeMessage(&message);
    MQTTAsync_free(topicName);

    Handler handler;
    {
        std::lock_guard lock(self->mutex_);
        if (!self->handler_) {
            self->queue_.push_back(std::move(m));
            self->cv_.notify_all();
            return 1;
        }
        handler = self->handler_;
    }
    handler(m);
    return 1;
}

void MqttClient::applyNoDelay() {
    if (options_.noDelay) {
        platform::setNoDelayForPeer(options_.host, options_.port);
    }
}

bool MqttClient::connect(std::chrono::milliseconds limit) {
    MQTTAsync_connectOptions conn = MQTTAsync_connectOptions_initializer5;
    MQTTAsync_SSLOptions ssl = MQTTAsync_SSLOptions_initializer;
    if (options_.tls) {
        ssl.trustStore = options_.tls->caFile.c_str();
        ssl.keyStore = options_.tls->certFile.c_str();
        ssl.privateKey = options_.tls->keyFile.c_str();
        ssl.enableServerCertAuth = 1;
        ssl.verify = 1;
        ssl.disableDefaultTrustStore = 1;
        conn.ssl = &ssl;
    }
    conn.keepAliveInterval = options_.keepAliveSeconds;
    conn.cleanstart = options_.cleanStart ? 1 : 0;
    conn.automaticReconnect = options_.automaticReconnect ? 1 : 0;
    conn.minRetryInterval = 1;
    conn.maxRetryInterval = 2;
    conn.connectTimeout = static_cast<int>(
        std::max<long long>(1, std::chrono::duration_cast<std::chrono::seconds>(limit).count()));

    MQTTProperties props = MQTTProperties_initializer;
    if (options_.sessionExpirySeconds > 0) {
        MQTTProperty expiry{};
        expiry.identifier = MQTTPROPERTY_CODE_SESSION_EXPIRY_INTERVAL;
        expiry.value.integer4 = options_.sessionExpirySeconds;
        MQTTProperties_add(&props, &expiry);
        conn.connectProperties = &props;
    }
    conn.onSuccess5 = &MqttClient::onConnectSuccess;
    conn.onFailure5 = &MqttClient::onConnectFailure;
    conn.context = this;

    Op* op = newOp();
    {
        std::lock_guard lock(mutex_);
        connectOp_ = op;
    }
    const int rc = MQTTAsync_connect(handle_, &conn);
    MQTTProperties_free(&props);
    if (rc != MQTTASYNC_SUCCESS) {
        std::lock_guard lock(mutex_);
        connectOp_ = nullptr;
        ops_.remove_if([op](const Op& o) { return &o == op; });
        lastError_ = "MQTTAsync_connect returned " + std::to_string(rc);
        return false;
    }
    if (!awaitOp(op, limit, "connect")) {
        return false;
    }
    // The connected callback may still be on its way; wait for it so that
    // isConnected() and the socket option agree with our answer.
    return waitConnected(limit);
}

bool MqttClient::disconnect(std::chrono::milliseconds limit) {
    MQTTAsync_disconnectOptions opts = MQTTAsync_disconnectOptions_initializer5;
    opts.timeout = static_cast<int>(limit.count());
    Op* op = newOp();
    opts.onSuccess5 = &MqttClient::onSuccess;
    opts.onFailure5 = &MqttClient::onFailure;
    opts.context = op;
    const int rc = MQTTAsync_disconnect(handle_, &opts);
    if (rc != MQTTASYNC_SUCCESS) {
        std::lock_guard lock(mutex_);
        ops_.remove_if([op](const Op& o) { return &o == op; });
        lastError_ = "MQTTAsync_disconnect returned " + std::to_string(rc);
        return false;
    }
    const bool ok = awaitOp(op, limit, "disconnect");
    std::lock_guard lock(mutex_);
    connected_ = false;
    return ok;
}

bool MqttClient::isConnected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}

bool MqttClient::waitConnected(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return connected_ || cancelled_; }) && connected_;
}

bool MqttClient::waitDisconnected(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, limit, [&] { return !connected_ || cancelled_; }) && !connected_;
}

bool MqttClient::sessionPresent() const {
    std::lock_guard lock(mutex_);
    return sessionPresent_;
}

bool MqttClient::subscribe(const std::string& filter, int qos, std::chrono::milliseconds limit) {
    MQTTAsync_responseOptions opts = MQTTAsync_responseOptions_initializer;
    Op* op = newOp();
    opts.onSuccess5 = &MqttClient::onSuccess;
    opts.onFailure5 = &MqttClient::onFailure;
    opts.context = op;
    const int rc = MQTTAsync_subscribe(handle_, filter.c_str(), qos, &opts);
    if (rc != MQTTASYNC_SUCCESS) {
        std::lock_guard lock(mutex_);
        ops_.remove_if([op](const Op& o) { return &o == op; });
        lastError_ = "MQTTAsync_subscribe returned " + std::to_string(rc);
        return false;
    }
    return awaitOp(op, limit, "subscribe");
}

bool MqttClient::publish(const std::string& topic, const std::string& payload, int qos,
                         bool retained, std::chrono::milliseconds limit) {
    MQTTAsync_responseOptions opts = MQTTAsync_responseOptions_initializer;
    Op* op = newOp();
    opts.onSuccess5 = &MqttClient::onSuccess;
    opts.onFailure5 = &MqttClient::onFailure;
    opts.context = op;
    MQTTAsync_message msg = MQTTAsync_message_initializer;
    msg.payload = const_cast<char*>(payload.data());
    msg.payloadlen = static_cast<int>(payload.size());
    msg.qos = qos;
    msg.retained = retained ? 1 : 0;
    const int rc = MQTTAsync_sendMessage(handle_, topic.c_str(), &msg, &opts);
    if (rc != MQTTASYNC_SUCCESS) {
        std::lock_guard lock(mutex_);
        ops_.remove_if([op](const Op& o) { return &o == op; });
        lastError_ = "MQTTAsync_sendMessage returned " + std::to_string(rc);
        return false;
    }
    return awaitOp(op, limit, "publish");
}

bool MqttClient::publishAsync(const std::string& topic, const std::string& payload, int qos,
                              bool retained) {
    MQTTAsync_responseOptions opts = MQTTAsync_responseOptions_initializer;
    MQTTAsync_message msg = MQTTAsync_message_initializer;
    msg.payload = const_cast<char*>(payload.data());
    msg.payloadlen = static_cast<int>(payload.size());
    msg.qos = qos;
    msg.retained = retained ? 1 : 0;
    const int rc = MQTTAsync_sendMessage(handle_, topic.c_str(), &msg, &opts);
    if (rc != MQTTASYNC_SUCCESS) {
        std::lock_guard lock(mutex_);
        lastError_ = "MQTTAsync_sendMessage returned " + std::to_string(rc);
        return false;
    }
    return true;
}

std::optional<Message> MqttClient::waitForMessage(const std::string& filter,
                                                  std::chrono::milliseconds limit) {
    return waitForMessage(filter, nullptr, limit);
}

std::optional<Message> MqttClient::waitForMessage(const std::string& filter,
                                                  const std::function<bool(const Message&)>& accept,
                                                  std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    std::optional<Message> found;
    cv_.wait_for(lock, limit, [&] {
        for (auto it = queue_.begin(); it != queue_.end(); ++it) {
            if (topicMatches(filter, it->topic) && (!accept || accept(*it))) {
                found = std::move(*it);
                queue_.erase(it);
                return true;
            }
        }
        return cancelled_;
    });
    return found;
}

void MqttClient::cancelWaits() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    cv_.notify_all();
}

bool MqttClient::cancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

std::string MqttClient::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

}  // namespace ndpx::devcloud
