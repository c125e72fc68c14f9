// Inbound messages as the broker delivers them: any bytes, on the commands,
// template, bootstrap or an unknown topic (the first byte picks it). They go
// through the session's own dispatch: parsing, the duplicate filter, JSON to
// bag, the desktop manager (here one that echoes the request) and the answer
// published back. Beyond what the sanitizers catch, a password planted in
// every input must never reach the log.

#include "FuzzLog.h"
#include "FuzzStore.h"
#include "config/MqttManagerUtil.h"
#include "mqtt/MqttManager.h"
#include "support/MqttManagerPeer.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/registry.h>
#include <platform/Paths.h>
#include <platform/SettingsStore.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using namespace ndpx;

constexpr const char* kPassword = "pw-planted-Q3vX9sLm2Tz7";
const std::string kTopics[] = {"desktop/e1/vm7/agent/sessions/commands",
                               "desktop/e1/vm7/agent/receive/dtemplate",
                               "desktop/bootstrap/e1t3_vm7", "desktop/elsewhere"};

// A client that takes every publication and connects nowhere.
class SinkClient : public MqttClient {
public:
    int attachCallbacks(int& failedStep) override {
        failedStep = 0;
        return 0;
    }
    int connect(const MqttConnectOptions&) override { return 0; }
    int disconnect(int) override { return kMqttAlreadyDisconnected; }
    bool isConnected() override { return false; }
    int publish(const std::string&, const std::string&, int, bool, int& token, SuccessFn,
                FailureFn) override {
        token = 1;
        return 0;
    }
    int subscribe(const std::string&, int, SuccessFn, FailureFn) override { return 0; }
    int unsubscribe(const std::string&, SuccessFn, FailureFn) override { return 0; }
};

class EchoWorker : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring&, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        response = request;
        return true;
    }
};

MqttManager* g_manager = nullptr;

void setUp() {
    const auto store = fuzz::temporaryStore("command_fuzz");
    const std::string key = "HKLM\\Software\\Brasswick, Inc.\\Brasswick Orvane\\Node Manager";
    for (const auto& [name, value] : {std::pair{"mqtt_EdgeId", "e1"},
                                      {"mqtt_VmId", "vm7"},
                                      {"mqtt_AgentIdentity", "e1t3_vm7"}}) {
        store->set(key, name, platform::SettingValue::ofString(value));
    }
    auto config = std::make_shared<mqttConfig>(store);
    CORE::MessageFrameWork::System().AddWorkerEx(
        [](void*) -> std::unique_ptr<CORE::WorkItem> { return std::make_unique<EchoWorker>(); },
        nullptr, L"DesktopManager", L"fuzz", 0, nullptr);

    MqttManagerDependencies deps;
    deps.runRegistrationThread = false;
    deps.config = [config] { return config; };
    deps.clientFactory = [](const MqttCreateOptions&, MqttClientListener&, int& rc) {
        rc = 0;
        return std::make_unique<SinkClient>();
    };
    deps.connectionMaterial = [] {
        return std::optional(ConnectionMaterial{.endpointUrl = "ssl://127.0.0.1:1",
                                                .clientId = "e1t3_vm7",
                                                .bootstrapTopic = "desktop/bootstrap/e1t3_vm7"});
    };
    // Lives for the whole run, and is stopped at exit: a template still
    // being applied on its worker writes JSON with a writer made on first
    // use. Made now, before the handler is registered, that writer is torn
    // down only after the handler has stopped the manager.
    g_manager = new MqttManager(deps);
    (void)MqttManagerUtil::writeCompact(Json::Value(Json::objectValue));
    std::atexit([] { g_manager->Stop(); });
    g_manager->Start();
    MqttManagerTestPeer(*g_manager).markPaired();
    g_manager->ConfigureTopicNames();
    fuzz::check(g_manager->Connect() == 1, "no client");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::FuzzLog::get();
    setUp();
    // Every input carries the password; it is set once, before any thread
    // of the session could read it.
    static const fuzz::FuzzLog::Forbidden secret(kPassword);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string& topic = kTopics[data[0] % std::size(kTopics)];
    std::string payload(reinterpret_cast<const char*>(data + 1), size - 1);
    if (payload.find(kPassword) != std::string::npos) {
        return 0;  // learnt from the comparisons: not a secret any more
    }
    // As the value of a member the log must never show, wherever the input
    // leaves room for one: a command object gets it as "password".
    if (!payload.empty() && payload.front() == '{') {
        payload.insert(1, std::string(R"("password":")") + kPassword + R"(",)");
    }
    g_manager->OnMessage(topic, payload);
    static unsigned inputs = 0;
    if (++inputs % 4096 == 0) {
        MqttManagerTestPeer(*g_manager).clearDuplicateFilter();  // random IDs would only pile up
    }
    return 0;
}
