// The MQTT client seam on the asynchronous C client library. Callbacks are
// static trampolines: they copy what the library hands over, free the
// library's memory at once, and never let an exception escape into C.

#include "mqtt/MqttClient.h"

#include "PahoPersistence.h"

#include <MQTTAsync.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>

namespace ndpx {

static_assert(kMqttSuccess == MQTTASYNC_SUCCESS);
static_assert(kMqttAlreadyDisconnected == MQTTASYNC_DISCONNECTED);
static_assert(kMqttSessionLost == MQTTASYNC_OPERATION_INCOMPLETE);

namespace {

// The library tells whether the broker kept the session only to the connect
// call's own callback, which it calls for the first connection and never for
// an automatic reconnect. What it does tell on every connection is its
// protocol trace line when it drops the session state because the broker
// kept none, on the thread that then calls the connected callback: that line
// sets this flag, and the connected callback takes it.
thread_local bool t_sessionDropped = false;
constexpr std::string_view kSessionDroppedTrace =
    "Cleaning session state on connect because sessionPresent is 0";

void onLibraryTrace(enum MQTTASYNC_TRACE_LEVELS, char* message) {
    if (message != nullptr &&
        std::string_view(message).find(kSessionDroppedTrace) != std::string_view::npos) {
        t_sessionDropped = true;
    }
}

// At the protocol level the library formats a trace line for every packet
// (each stamped through localtime(), which checks the time-zone file each
// time): a cost on every message. The session line can only come while a
// client waits for a connection, so the level is raised only then.
struct TraceLevel {
    std::mutex mutex;
    int waitingClients = 0;
};

TraceLevel& traceLevel() {
    static TraceLevel level;
    return level;
}

// Marks a client as waiting for a connection or not, and sets the level.
void setAwaitingConnection(std::atomic<bool>& awaiting, bool now) {
    if (awaiting.exchange(now) == now) {
        return;
    }
    TraceLevel& level = traceLevel();
    std::lock_guard lock(level.mutex);
    level.waitingClients += now ? 1 : -1;
    // The library only stores the level; set under the lock so that it
    // follows the count.
    MQTTAsync_setTraceLevel(level.waitingClients > 0 ? MQTTASYNC_TRACE_PROTOCOL
                                                     : MQTTASYNC_TRACE_ERROR);
}

}  // namespace

void initMqttClientLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
        MQTTAsync_init_options init = MQTTAsync_init_options_initializer;
        init.do_openssl_init = 0;  // the module sets up the TLS library itself
        MQTTAsync_global_init(&init);
        // The protocol level, the least the session line needs, is set while
        // a client waits for a connection; below it the library would format
        // every function's entry and exit.
        MQTTAsync_setTraceCallback(&onLibraryTrace);
        MQTTAsync_setTraceLevel(MQTTASYNC_TRACE_ERROR);
    });
}

namespace {

MqttFailure toFailure(const MQTTAsync_failureData5* data) {
    MqttFailure f;
    if (data != nullptr) {
        f.code = data->code;
        f.reasonCode = static_cast<int>(data->reasonCode);
        f.message = data->message != nullptr ? data->message : "";
        f.token = data->token;
    }
    return f;
}

class PahoMqttClient : public MqttClient {
public:
    PahoMqttClient(MQTTAsync handle, MqttClientListener& listener,
                   std::unique_ptr<PahoPersistence> persistence)
        : persistence_(std::move(persistence)), handle_(handle), listener_(listener) {
        setAwaitingConnection(awaitingConnection_, true);
    }

    ~PahoMqttClient() override {
        MQTTAsync_destroy(&handle_);
        setAwaitingConnection(awaitingConnection_, false);
        // The library calls nothing after destroy; requests still open are
        // dropped with their contexts.
    }

    int attachCallbacks(int& failedStep) override {
        failedStep = 1;
        int rc = MQTTAsync_setCallbacks(handle_, this, &onConnectionLost, &onMessageArrived,
                                        &onDeliveryComplete);
        if (rc != MQTTASYNC_SUCCESS) {
            return rc;
        }
        failedStep = 2;
        rc = MQTTAsync_setConnected(handle_, this, &onConnected);
        if (rc != MQTTASYNC_SUCCESS) {
            return rc;
        }
        failedStep = 3;
        rc = MQTTAsync_setDisconnected(handle_, this, &onDisconnected);
        if (rc == MQTTASYNC_SUCCESS) {
            failedStep = 0;
        }
        return rc;
    }

    int connect(const MqttConnectOptions& options) override {
        setAwaitingConnection(awaitingConnection_, true);
        options_ = options;  // the library keeps pointers into these strings
        MQTTAsync_willOptions will = MQTTAsync_willOptions_initializer;
        will.topicName = options_.willTopic.c_str();
        will.message = nullptr;
        will.payload.data = options_.willPayload.data();
        will.payload.len = static_cast<int>(options_.willPayload.size());
        will.retained = 0;
        will.qos = options_.willQos;

        MQTTAsync_SSLOptions ssl = MQTTAsync_SSLOptions_initializer;
        ssl.trustStore = options_.trustStoreFile.c_str();
        ssl.keyStore = options_.keyStoreFile.c_str();
        ssl.privateKey = options_.privateKeyFile.c_str();
        ssl.enableServerCertAuth = 1;
        ssl.verify = 0;
        ssl.ssl_error_cb = &onSslError;
        ssl.ssl_error_context = this;

        MQTTProperties props = MQTTProperties_initializer;
        MQTTProperty expiry{};
        expiry.identifier = MQTTPROPERTY_CODE_SESSION_EXPIRY_INTERVAL;
        expiry.value.integer4 = static_cast<unsigned>(options_.sessionExpirySeconds);
        MQTTProperties_add(&props, &expiry);

        MQTTAsync_connectOptions conn = MQTTAsync_connectOptions_initializer5;
        conn.keepAliveInterval = options_.keepAliveSeconds;
        conn.cleansession = 0;
        conn.maxInflight = 65535;
        conn.will = options_.willTopic.empty() ? nullptr : &will;
        conn.username = options_.userName.c_str();
        conn.password = nullptr;
        conn.connectTimeout = options_.connectTimeoutSeconds;
        conn.retryInterval = options_.retryIntervalSeconds;
        conn.ssl = &ssl;
        conn.MQTTVersion = MQTTVERSION_5;
        conn.automaticReconnect = options_.automaticReconnect ? 1 : 0;
        conn.minRetryInterval = options_.minRetrySeconds;
        conn.maxRetryInterval = options_.maxRetrySeconds;
        conn.cleanstart = options_.cleanStart ? 1 : 0;
        conn.connectProperties = &props;
        conn.onSuccess5 = &onConnectSuccess;
        conn.onFailure5 = &onConnectFailure;
        conn.context = this;
        const int rc = MQTTAsync_connect(handle_, &conn);
        MQTTProperties_free(&props);
        return rc;
    }

    int disconnect(int timeoutMs) override {
        MQTTAsync_disconnectOptions opts = MQTTAsync_disconnectOptions_initializer5;
        opts.timeout = timeoutMs;
        opts.onSuccess5 = &onDisconnectSuccess;
        opts.onFailure5 = &onDisconnectFailure;
        opts.context = this;
        return MQTTAsync_disconnect(handle_, &opts);
    }

    bool isConnected() override { return MQTTAsync_isConnected(handle_) != 0; }

    int publish(const std::string& topic, const std::string& payload, int qos, bool retained,
                int& token, SuccessFn onSuccess, FailureFn onFailure) override {
        MQTTAsync_responseOptions ro = MQTTAsync_responseOptions_initializer;
        Request* request = open(std::move(onSuccess), std::move(onFailure));
        ro.onSuccess5 = &onRequestSuccess;
        ro.onFailure5 = &onRequestFailure;
        ro.context = request;
        MQTTAsync_message msg = MQTTAsync_message_initializer;
        msg.payload = const_cast<char*>(payload.data());
        msg.payloadlen = static_cast<int>(payload.size());
        msg.qos = qos;
        msg.retained = retained ? 1 : 0;
        const int rc = MQTTAsync_sendMessage(handle_, topic.c_str(), &msg, &ro);
        if (rc != MQTTASYNC_SUCCESS) {
            close(request);
        }
        token = ro.token;
        return rc;
    }

    int subscribe(const std::string& topic, int qos, SuccessFn onSuccess,
                  FailureFn onFailure) override {
        MQTTAsync_responseOptions ro = MQTTAsync_responseOptions_initializer;
        Request* request = open(std::move(onSuccess), std::move(onFailure));
        ro.onSuccess5 = &onRequestSuccess;
        ro.onFailure5 = &onRequestFailure;
        ro.context = request;
        const int rc = MQTTAsync_subscribe(handle_, topic.c_str(), qos, &ro);
        if (rc != MQTTASYNC_SUCCESS) {
            close(request);
        }
        return rc;
    }

    int unsubscribe(const std::string& topic, SuccessFn onSuccess, FailureFn onFailure) override {
        MQTTAsync_responseOptions ro = MQTTAsync_responseOptions_initializer;
        Request* request = open(std::move(onSuccess), std::move(onFailure));
        ro.onSuccess5 = &onRequestSuccess;
        ro.onFailure5 = &onRequestFailure;
        ro.context = request;
        const int rc = MQTTAsync_unsubscribe(handle_, topic.c_str(), &ro);
        if (rc != MQTTASYNC_SUCCESS) {
            close(request);
        }
        return rc;
    }

private:
    struct Request {
        PahoMqttClient* owner;
        SuccessFn onSuccess;
        FailureFn onFailure;
    };

    Request* open(SuccessFn s, FailureFn f) {
        auto request = std::make_unique<Request>(Request{this, std::move(s), std::move(f)});
        Request* raw = request.get();
        std::lock_guard lock(requestsMutex_);
        requests_.emplace(raw, std::move(request));
        return raw;
    }

    // Takes the request out of the open set; null if it is not open.
    std::unique_ptr<Request> close(Request* raw) {
        std::lock_guard lock(requestsMutex_);
        auto it = requests_.find(raw);
        if (it == requests_.end()) {
            return nullptr;
        }
        auto owned = std::move(it->second);
        requests_.erase(it);
        return owned;
    }

    template <class Fn>
    static void guarded(Fn&& fn) {
        try {
            fn();
        } catch (...) {
            // Nothing may unwind into the C library.
        }
    }

    static void onRequestSuccess(void* context, MQTTAsync_successData5* data) {
        guarded([&] {
            auto* raw = static_cast<Request*>(context);
            auto request = raw->owner->close(raw);
            if (request && request->onSuccess) {
                request->onSuccess(data != nullptr ? data->token : 0);
            }
        });
    }

    static void onRequestFailure(void* context, MQTTAsync_failureData5* data) {
        guarded([&] {
            auto* raw = static_cast<Request*>(context);
            auto request = raw->owner->close(raw);
            if (request && request->onFailure) {
                request->onFailure(toFailure(data));
            }
        });
    }

    static void onConnectionLost(void* context, char* cause) {
        const std::string text = cause != nullptr ? cause : "";
        if (cause != nullptr) {
            MQTTAsync_free(cause);
        }
        auto* self = static_cast<PahoMqttClient*>(context);
        setAwaitingConnection(self->awaitingConnection_, true);  // it reconnects
        guarded([&] { self->listener_.onConnectionLost(text); });
    }

    static int onMessageArrived(void* context, char* topicName, int topicLen,
                                MQTTAsync_message* message) {
        std::string topic = topicLen > 0
                                ? std::string(topicName, static_cast<std::size_t>(topicLen))
                                : std::string(topicName);
        std::string payload(static_cast<const char*>(message->payload),
                            static_cast<std::size_t>(message->payloadlen));
        MQTTAsync_freeMessage(&message);
        MQTTAsync_free(topicName);
        guarded([&] {
            static_cast<PahoMqttClient*>(context)->listener_.onMessageArrived(std::move(topic),
                                                                              std::move(payload));
        });
        return 1;
    }

    static void onDeliveryComplete(void* context, MQTTAsync_token token) {
        guarded(
            [&] { static_cast<PahoMqttClient*>(context)->listener_.onDeliveryComplete(token); });
    }

    static void onConnected(void* context, char* cause) {
        const std::string text = cause != nullptr ? cause : "";
        if (cause != nullptr) {
            MQTTAsync_free(cause);
        }
        const bool sessionPresent = !std::exchange(t_sessionDropped, false);
        auto* self = static_cast<PahoMqttClient*>(context);
        setAwaitingConnection(self->awaitingConnection_, false);
        guarded([&] { self->listener_.onConnected(text, sessionPresent); });
    }

    static void onDisconnected(void* context, MQTTProperties*, enum MQTTReasonCodes reasonCode) {
        guarded([&] {
            static_cast<PahoMqttClient*>(context)->listener_.onDisconnectReceived(
                static_cast<int>(reasonCode));
        });
    }

    static void onConnectSuccess(void* context, MQTTAsync_successData5*) {
        guarded([&] { static_cast<PahoMqttClient*>(context)->listener_.onConnectSuccess(); });
    }

    static void onConnectFailure(void* context, MQTTAsync_failureData5* data) {
        guarded([&] {
            static_cast<PahoMqttClient*>(context)->listener_.onConnectFailure(toFailure(data));
        });
    }

    static void onDisconnectSuccess(void* context, MQTTAsync_successData5*) {
        guarded([&] { static_cast<PahoMqttClient*>(context)->listener_.onDisconnectSuccess(); });
    }

    static void onDisconnectFailure(void* context, MQTTAsync_failureData5* data) {
        guarded([&] {
            static_cast<PahoMqttClient*>(context)->listener_.onDisconnectFailure(toFailure(data));
        });
    }

    static int onSslError(const char* text, size_t length, void* context) {
        guarded([&] {
            static_cast<PahoMqttClient*>(context)->listener_.onSslError(
                text != nullptr ? std::string(text, length) : std::string());
        });
        return 1;
    }

    std::atomic<bool> awaitingConnection_{false};
    std::unique_ptr<PahoPersistence> persistence_;  // outlives handle_: destroyed after it
    MQTTAsync handle_;
    MqttClientListener& listener_;
    MqttConnectOptions options_;
    std::mutex requestsMutex_;
    std::map<Request*, std::unique_ptr<Request>> requests_;
};

}  // namespace

MqttClientFactory pahoClientFactory() {
    return [](const MqttCreateOptions& o, MqttClientListener& listener,
              int& rc) -> std::unique_ptr<MqttClient> {
        initMqttClientLibrary();
        MQTTAsync_createOptions create = MQTTAsync_createOptions_initializer5;
        create.sendWhileDisconnected = o.sendWhileDisconnected ? 1 : 0;
        create.maxBufferedMessages = o.maxBufferedMessages;
        create.MQTTVersion = MQTTVERSION_5;
        create.allowDisconnectedSendAtAnyTime = o.allowDisconnectedSendAtAnyTime ? 1 : 0;
        create.deleteOldestMessages = o.deleteOldestMessages ? 1 : 0;
        create.restoreMessages = 1;
        create.persistQoS0 = 1;
        auto persistence = o.persistenceDir.empty()
                               ? nullptr
                               : std::make_unique<PahoPersistence>(o.persistenceDir, o.storeLog);
        MQTTAsync handle = nullptr;
        rc = MQTTAsync_createWithOptions(
            &handle, o.serverUri.c_str(), o.clientId.c_str(),
            persistence ? MQTTCLIENT_PERSISTENCE_USER : MQTTCLIENT_PERSISTENCE_NONE,
            persistence ? persistence->callbacks() : nullptr, &create);
        if (rc != MQTTASYNC_SUCCESS) {
            return nullptr;
        }
        return std::make_unique<PahoMqttClient>(handle, listener, std::move(persistence));
    };
}

}  // namespace ndpx
