// Messages a local process sends the IPC bridge: any bytes, from an admitted
// process, through the bridge's parsing and checks to the MQTT side (here
// one that counts). The topic table is bounded by what was subscribed; a
// password planted in every input must never reach the log.

#include "FuzzLog.h"
#include "FuzzStore.h"
#include "config/mqttConfig.h"
#include "ipc/IPCManager.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using namespace ndpx;

constexpr const char* kPassword = "pw-planted-Q3vX9sLm2Tz7";

class Stream : public ipc::IpcStream {
public:
    std::uint32_t peerProcessId() const override { return 4242; }
    std::optional<platform::PeerCredentials> peerCredentials() const override {
        return platform::PeerCredentials{0, 0, 4242};
    }
    bool peerConnected() const override { return true; }
    std::string name() const override { return "fuzz-stream"; }
    int sendAsync(std::vector<std::uint8_t>, Completion done) override {
        done(true);
        return ipc::status::kOk;
    }
    void close(std::chrono::milliseconds) override {}
};

class CountingMqtt : public IpcMqttSide {
public:
    void subscribeIpcTopic(const std::string&) override {}
    void unsubscribeIpcTopic(const std::string&) override {}
    bool publishIpcMessage(const std::string&, const std::string&, int qos, bool) override {
        fuzz::check(qos >= 0 && qos <= 2, "a QoS out of range was published", "");
        return true;
    }
};

struct Listener : ipc::IpcListener {
    int setAccepting() override { return ipc::status::kOk; }
    int close() override { return ipc::status::kOk; }
};

ipc::ListenerCallbacks g_events;
std::shared_ptr<Stream> g_stream;

struct Context : ipc::IpcContext {
    int listen(const std::string&, ipc::ListenerCallbacks cb,
               std::shared_ptr<ipc::IpcListener>& out) override {
        g_events = std::move(cb);
        out = std::make_shared<Listener>();
        return ipc::status::kOk;
    }
};

void setUp() {
    const auto store = fuzz::temporaryStore("ipc_fuzz");
    store->set(std::string(kNodeManagerKey) + "\\ipcincludelist", "fuzzer",
               platform::SettingValue::ofString("1"));
    auto config = std::make_shared<mqttConfig>(store);
    IPCManager::Dependencies deps;
    deps.config = [config] { return config; };
    deps.transport = [](ipc::IpcLogSink, std::shared_ptr<ipc::IpcContext>& out) {
        out = std::make_shared<Context>();
        return ipc::status::kOk;
    };
    deps.processBaseName = [](const ipc::IpcStreamPtr&) {
        return std::optional<std::string>("fuzzer");
    };
    // Live for the whole run: the process ends without tearing them down.
    auto* manager = new IPCManager(deps);
    static CountingMqtt mqtt;
    fuzz::check(manager->Start(mqtt), "the bridge did not start", "");
    g_stream = std::make_shared<Stream>();
    fuzz::check(g_events.connectRequest(g_stream), "the process was refused", "");
    g_events.connectAccepted(g_stream);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::FuzzLog::get();
    setUp();
    static const fuzz::FuzzLog::Forbidden secret(kPassword);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find(kPassword) != std::string::npos) {
        return 0;  // learnt from the comparisons: not a secret any more
    }
    // The planted secret rides as a member the redacting writer masks.
    std::string input = text;
    if (!input.empty() && input.back() == '}') {
        input.insert(input.size() - 1, std::string(R"(,"password":")") + kPassword + "\"");
    }
    ipc::IpcMessage message;
    message.data = reinterpret_cast<const std::uint8_t*>(input.data());
    message.size = input.size();
    g_events.received(g_stream, message);
    return 0;
}
