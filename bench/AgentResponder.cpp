// The real agent as a round-trip responder: the MQTT session of the module
// (manager, client library, dispatch, duplicate filter, JSON <-> bag) with
// the host's message framework and a desktop manager that answers "Echo".

#include "AgentResponder.h"

#include "mqtt/MqttManager.h"
#include "support/MqttManagerPeer.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/log.h>
#include <platform/Paths.h>

#include <stdexcept>
#include <thread>

namespace ndpx::bench {
namespace {

const std::string kIdentity = "e1t3_bench";

class EchoDesktopManager : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring&, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        response = request;
        return true;
    }
};

class AgentResponder : public Responder {
public:
    AgentResponder() {
        platform::paths::setRoot(root_.path());
        std::string error;
        store_ = platform::openSqliteSettingsStore(":memory:", error);
        if (!store_) {
            throw std::runtime_error("agent responder: " + error);
        }
        for (const auto& [name, value] : {std::pair{"mqtt_EdgeId", "e1"},
                                          {"mqtt_VmId", "bench"},
                                          {"mqtt_ShortTemplateId", "t3"},
                                          {"mqtt_AgentIdentity", kIdentity.c_str()}}) {
            store_->set(kNodeManagerKey, name, platform::SettingValue::ofString(value));
        }
        config_ = std::make_shared<mqttConfig>(store_);
        // The agent's usual level, without a sink: lines are formatted, not written.
        CORE::setLogLevel(CORE::kLogInfo);
        CORE::MessageFrameWork::System().AddWorkerEx(
            [](void*) -> std::unique_ptr<CORE::WorkItem> {
                return std::make_unique<EchoDesktopManager>();
            },
            nullptr, L"DesktopManager", L"bench", 0, nullptr, 4);
    }

    ~AgentResponder() override {
        if (manager_) {
            manager_->Stop();
        }
        CORE::MessageFrameWork::System().RemoveWorker(L"DesktopManager", 0);
    }

    std::string name() const override { return "agent"; }
    std::string desktopId() const override { return "e1/bench"; }

    void start(test::MosquittoBroker& broker, bool noDelay) override {
        const test::ClientPem client = broker.issueClient(kIdentity);
        ConnectionMaterial material{
            .endpointUrl = "ssl://127.0.0.1:" + std::to_string(broker.port()),
            .clientId = kIdentity,
            .bootstrapTopic = "desktop/bootstrap/" + kIdentity,
            .caCertPem = broker.caPem(),
            .clientCertPem = client.certPem,
            .privateKeyPem = client.keyPem};
        MqttManagerDependencies deps;
        deps.runRegistrationThread = false;
        deps.setNoDelay = noDelay;
        deps.config = [this] { return config_; };
        deps.connectionMaterial = [material] { return std::optional(material); };
        manager_ = std::make_unique<MqttManager>(deps);
        manager_->Start();
        MqttManagerTestPeer(*manager_).markPaired();
        manager_->ConfigureTopicNames();
        if (manager_->Connect() != 1) {
            throw std::runtime_error("agent responder: connect failed");
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (MqttManagerTestPeer(*manager_).subscribedMask() != kAllSubscribed) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw std::runtime_error("agent responder: not subscribed");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

private:
    test::TempDir root_;
    std::shared_ptr<platform::SettingsStore> store_;
    std::shared_ptr<mqttConfig> config_;
    std::unique_ptr<MqttManager> manager_;
};

}  // namespace

std::unique_ptr<Responder> makeAgentResponder() {
    return std::make_unique<AgentResponder>();
}

}  // namespace ndpx::bench
