#pragma once
// A small MQTT 5 client on Paho C async with blocking-looking calls, for the
// development control plane, the tests and the benchmarks. Every wait is
// bounded; received messages are queued (or handed to a handler) and can be
// waited for by topic filter.

#include <MQTTAsync.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>

namespace ndpx::devcloud {

// PEM files for mutual TLS; Paho reads them on every (re)connect, so they
// must stay in place while the client exists.
struct TlsFiles {
    std::string caFile;
    std::string certFile;
    std::string keyFile;
};

struct ClientOptions {
    std::string host = "127.0.0.1";
    int port = 1883;
    std::string clientId;
    std::optional<TlsFiles> tls;  // nullopt: plain TCP
    bool cleanStart = true;
    std::uint32_t sessionExpirySeconds = 0;  // > 0 keeps the session at the broker
    bool automaticReconnect = false;
    bool noDelay = true;  // TCP_NODELAY on the broker socket after every (re)connect
    int keepAliveSeconds = 30;
    // Empty: nothing kept on disk; else the library's file persistence in
    // this folder, as a desktop agent keeps its unacknowledged messages.
    std::string persistenceDir;
};

struct Message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retained = false;
};

// True when `topic` matches the MQTT filter `filter` ('+' and '#' wildcards).
bool topicMatches(const std::string& filter, const std::string& topic);

class MqttClient {
public:
    using Handler = std::function<void(const Message&)>;
    using Clock = std::chrono::steady_clock;

    explicit MqttClient(ClientOptions options);
    ~MqttClient();  // disconnects (bounded) and destroys the Paho client
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    // Messages go to `handler` (on Paho's receive thread; it must return
    // fast and must not wait on this client) instead of the queue. Set it
    // before connect().
    void setHandler(Handler handler);

    bool connect(std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool disconnect(std::chrono::milliseconds limit = std::chrono::seconds(5));
    bool isConnected() const;
    // Waits until the client is connected (e.g. after an automatic reconnect).
    bool waitConnected(std::chrono::milliseconds limit);
    // Waits until the connection is lost (or closed).
    bool waitDisconnected(std::chrono::milliseconds limit);
    // Whether the broker kept a session at the last successful connect.
    bool sessionPresent() const;

    bool subscribe(const std::string& filter, int qos,
                   std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Waits for the broker's acknowledgement (QoS 1/2) or the hand-over to
    // the socket (QoS 0).
    bool publish(const std::string& topic, const std::string& payload, int qos,
                 bool retained = false, std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Starts a publish without waiting; false when Paho refused it.
    bool publishAsync(const std::string& topic, const std::string& payload, int qos,
                      bool retained = false);

    // Takes the first queued message whose topic matches `filter` (and
    // `accept`, when given), waiting up to `limit` for one to arrive.
    std::optional<Message> waitForMessage(const std::string& filter,
                                          std::chrono::milliseconds limit);
    std::optional<Message> waitForMessage(const std::string& filter,
                                          const std::function<bool(const Message&)>& accept,
                                          std::chrono::milliseconds limit);
    // Makes every current and later wait return at once (e.g. on SIGINT).
    void cancelWaits();
    bool cancelled() const;

    // The last error text (Paho's message or our own), for test output.
    std::string lastError() const;
    const ClientOptions& options() const { return options_; }

private:
    struct Op {
        MqttClient* owner;
        bool done = false;
        bool ok = false;
        bool abandoned = false;
        int code = 0;
        int reason = 0;
        bool sessionPresent = false;
    };

    Op* newOp();
    bool awaitOp(Op* op, std::chrono::milliseconds limit, const char* what);
    void finishLocked(Op* op, bool ok, int code, int reason, const char* message);
    void applyNoDelay();

    // Per-request callbacks (context: the Op, answered once).
    static void onSuccess(void* context, MQTTAsync_successData5* response);
    static void onFailure(void* context, MQTTAsync_failureData5* response);
    // Connect callbacks (context: the client; Paho may call them again on an
    // automatic reconnect, after the Op is gone).
    static void onConnectSuccess(void* context, MQTTAsync_successData5* response);
    static void onConnectFailure(void* context, MQTTAsync_failureData5* response);
    static void onConnected(void* context, char* cause);
    static void onConnectionLost(void* context, char* cause);
    static int onMessage(void* context, char* topicName, int topicLen, MQTTAsync_message* message);

    const ClientOptions options_;
    MQTTAsync handle_ = nullptr;
    Handler handler_;

    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::list<Op> ops_;  // stable addresses: Paho holds pointers to them
    Op* connectOp_ = nullptr;
    std::deque<Message> queue_;
    bool connected_ = false;
    bool sessionPresent_ = false;
    bool cancelled_ = false;
    std::string lastError_;
};

}  // namespace ndpx::devcloud
