#pragma once
// The seam between the manager and the MQTT client library. The production
// implementation (PahoMqttClient) drives the asynchronous C client; unit
// tests use a fake. Callbacks arrive on the library's threads, which may
// hold the library's own lock: a listener copies what it is given and hands
// off, and never calls back into the client from there.

#include <functional>
#include <memory>
#include <string>

namespace ndpx {

// Results of the seam's calls, in the client library's numbering.
inline constexpr int kMqttSuccess = 0;
inline constexpr int kMqttAlreadyDisconnected = -3;
// A request failed because the broker kept no session for the client.
inline constexpr int kMqttSessionLost = -11;

// Readies the client library for this process, once, before its first
// client; later calls do nothing. Every user of the library in a process
// calls it first: setting the library up again while a client exists would
// reset the locks that client is using.
void initMqttClientLibrary();

struct MqttFailure {
    int code = 0;
    int reasonCode = 0;
    std::string message;  // empty when the library gave none
    int token = 0;
};

struct MqttCreateOptions {
    std::string serverUri;
    std::string clientId;
    // Where the client keeps what the broker has not acknowledged; empty:
    // nowhere (kept in memory only).
    std::string persistenceDir;
    // Told what goes wrong with that store, a line at a time, on whichever
    // thread met it.
    std::function<void(const std::string&)> storeLog = [](const std::string&) {};
    bool sendWhileDisconnected = true;
    int maxBufferedMessages = 2000;
    bool allowDisconnectedSendAtAnyTime = true;
    bool deleteOldestMessages = true;
};

struct MqttConnectOptions {
    int keepAliveSeconds = 30;
    std::string userName;
    int connectTimeoutSeconds = 30;
    int retryIntervalSeconds = 90;
    bool automaticReconnect = true;
    int minRetrySeconds = 5;
    int maxRetrySeconds = 600;
    bool cleanStart = false;
    int sessionExpirySeconds = 300;
    std::string willTopic;
    std::string willPayload;
    int willQos = 1;
    // PEM files (mode 0600) the library reads on every (re)connect.
    std::string trustStoreFile;
    std::string keyStoreFile;
    std::string privateKeyFile;
};

// Session events, in the library's terms.
class MqttClientListener {
public:
    virtual ~MqttClientListener() = default;
    virtual void onConnectionLost(const std::string& cause) = 0;
    // Runs on the library's receive thread: copy and hand off, return fast.
    virtual void onMessageArrived(std::string topic, std::string payload) = 0;
    virtual void onDeliveryComplete(int token) = 0;
    // After every successful connection, the first one included;
    // `sessionPresent` as the broker answered (false: it kept no session).
    virtual void onConnected(const std::string& cause, bool sessionPresent) = 0;
    virtual void onDisconnectReceived(int reasonCode) = 0;
    virtual void onConnectSuccess() = 0;
    virtual void onConnectFailure(const MqttFailure& failure) = 0;
    virtual void onDisconnectSuccess() = 0;
    virtual void onDisconnectFailure(const MqttFailure& failure) = 0;
    virtual void onSslError(const std::string& text) = 0;
};

class MqttClient {
public:
    using SuccessFn = std::function<void(int token)>;
    using FailureFn = std::function<void(const MqttFailure&)>;

    virtual ~MqttClient() = default;

    // Registers the listener's callbacks. On failure `failedStep` says which
    // registration failed: 1 lost/arrived/delivered, 2 connected, 3 disconnected.
    virtual int attachCallbacks(int& failedStep) = 0;
    // All return 0 when the request was accepted, else the library's code.
    virtual int connect(const MqttConnectOptions& options) = 0;
    virtual int disconnect(int timeoutMs) = 0;
    virtual bool isConnected() = 0;
    virtual int publish(const std::string& topic, const std::string& payload, int qos,
                        bool retained, int& token, SuccessFn onSuccess, FailureFn onFailure) = 0;
    virtual int subscribe(const std::string& topic, int qos, SuccessFn onSuccess,
                          FailureFn onFailure) = 0;
    virtual int unsubscribe(const std::string& topic, SuccessFn onSuccess, FailureFn onFailure) = 0;
};

// Creates a client; nullptr and `rc` set on failure. The listener must
// outlive the client.
using MqttClientFactory = std::function<std::unique_ptr<MqttClient>(
    const MqttCreateOptions& options, MqttClientListener& listener, int& rc)>;

// The factory of the real client library.
MqttClientFactory pahoClientFactory();

}  // namespace ndpx
