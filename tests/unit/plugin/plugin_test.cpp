// The install decision, the FIPS switch text and the worker's answers.

#include "plugin/MQTTPlugin.h"
#include "plugin/MQTTServiceOp.h"
#include "support/TestRegistry.h"

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

#include <future>

namespace ndpx {
namespace {

using test::TestRegistry;

TEST(InstallDecision, OnlyAnotherTransportWithoutMigrationMessageUnloads) {
    EXPECT_TRUE(MQTTPlugin::isMqttRequired(L"", false));
    EXPECT_TRUE(MQTTPlugin::isMqttRequired(L"MQTT", false));
    EXPECT_TRUE(MQTTPlugin::isMqttRequired(L"mqtt", false));
    EXPECT_FALSE(MQTTPlugin::isMqttRequired(L"JMS", false));
    EXPECT_TRUE(MQTTPlugin::isMqttRequired(L"JMS", true));
    EXPECT_FALSE(MQTTPlugin::isMqttRequired(L"MQTT ", false));
}

TEST(Fips, OnlyTheExactTextOneAsksForFips) {
    TestRegistry reg;
    for (const char* text : {"true", "01", " 1", "", "1 "}) {
        reg.log().clear();
        MQTTInstall(text);
        EXPECT_FALSE(reg.log().contains("Fips mode is enabled in the registry")) << text;
        EXPECT_TRUE(reg.log().contains("MQTTInstall(): Running in Non-Fips mode = (mode:0)"));
    }
    reg.log().clear();
    EXPECT_FALSE(MQTTInstall("1"));  // asked for, but this machine has no FIPS provider
    EXPECT_TRUE(reg.log().contains("MQTTInstall(): Fips mode is enabled in the registry"));
}

struct Posted {
    std::mutex m;
    std::condition_variable cv;
    std::wstring op;
    std::wstring file;
};
Posted g_posted;

class SystemStub : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring& op, CORE::PropertyBag& req,
                       CORE::PropertyBag&) override {
        std::lock_guard lock(g_posted.m);
        g_posted.op = op;
        g_posted.file = req.get(L"FileName", L"");
        g_posted.cv.notify_all();
        return true;
    }
};

TEST(ServiceOp, ShutdownNotifyInAnyCaseAsksTheHostToUnloadTheModule) {
    TestRegistry reg;
    CORE::MessageFrameWork::System().AddWorkerEx(
        [](void*) -> std::unique_ptr<CORE::WorkItem> { return std::make_unique<SystemStub>(); },
        nullptr, L"System", L"stub", 0, nullptr);
    const auto service = CORE::ref<MQTTService>::adopt(new MQTTService({}));
    MQTTServiceOp item(service.get());
    CORE::PropertyBag req, resp;
    EXPECT_TRUE(item.handleMessage(L"shutdownnotify", req, resp));
    std::unique_lock lock(g_posted.m);
    EXPECT_TRUE(
        g_posted.cv.wait_for(lock, std::chrono::seconds(10), [] { return !g_posted.op.empty(); }));
    EXPECT_EQ(g_posted.op, L"UnloadPlugin");
    EXPECT_EQ(g_posted.file, L"ndpx_mqtt");
    lock.unlock();
    CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
}

// Every operation of the worker "MQTT", sent as a real host message to the
// registered service, reaches the manager's operation (which, with no
// session, refuses with its own line or answer).
TEST(ServiceOperations, EveryOperationIsReachedThroughAHostMessage) {
    test::TestRegistry reg;
    CORE::ref<MQTTService> service = CORE::ref<MQTTService>::adopt(new MQTTService({}));
    ASSERT_TRUE(service->start());
    auto send = [](const wchar_t* op, CORE::PropertyBag request = {}) {
        CORE::PropertyBag response;
        const int rc = CORE::MessageHandler::SendMsg(L"MQTT", op, request, response, 10000);
        return std::pair{rc, response};
    };
    const char* const kNotPublishing = "MqttManager::DoPublishMessage(): Not publishing message";
    const struct {
        const wchar_t* op;
        int rc;
        const char* line;
    } cases[] = {
        {L"PublishAsyncNotification", 0,
         "MqttManager::SendSessionReport(): Not publishing session report"},
        {L"publishsessionmessage", 0, kNotPublishing},  // names are case-blind
        {L"PublishTopicMessage", 0, kNotPublishing},
        {L"SendEvent", 0, kNotPublishing},
        {L"MigrateToCorvid", 5, "Unknown migration command type ''"},  // no "type"
        {L"UpdateMqttEndpoints", 87, nullptr},                         // no ENDPOINT given
        {L"Nonsense", CORE::kErrorNotImplemented, "NOT IMPLEMENTED"},
    };
    for (const auto& c : cases) {
        reg.log().clear();
        EXPECT_EQ(send(c.op).first, c.rc) << c.op;
        if (c.line != nullptr) {
            EXPECT_TRUE(reg.log().contains(c.line)) << c.op;
        }
    }
    CORE::PropertyBag getStatus;
    getStatus.set(L"type", L"getstatus");
    const auto [statusRc, status] = send(L"MigrateToCorvid", getStatus);
    EXPECT_EQ(statusRc, 0);
    EXPECT_EQ(status.get(L"status", L""), L"notstarted");
    const auto [rc, props] = send(L"GetEndpointProperties");
    EXPECT_EQ(rc, 0);
    ASSERT_NE(props.getBag(L"mqtt"), nullptr);
    EXPECT_NE(props.getBag(L"mqtt")->getBag(L"global"), nullptr);
    EXPECT_NE(props.getBag(L"mqtt")->getBag(L"edge"), nullptr);
    service->stop();
}

}  // namespace
}  // namespace ndpx

namespace ndpx {
namespace {

// An exit while the install still waits for the desktop manager ends the
// wait: the host is not held for the install's two minutes, and nothing is
// started behind its back.
TEST(PluginLifecycle, ExitDuringTheInstallsWaitForTheDesktopManagerIsPrompt) {
    TestRegistry reg;
    MQTTPlugin plugin;
    ASSERT_EQ(CORE::mfwPluginDll::onPluginInit(nullptr, nullptr, nullptr, nullptr), 1);
    ASSERT_TRUE(reg.log().waitFor("Waiting for DesktopManager queue", std::chrono::seconds(10)));
    auto exited = std::async(std::launch::async, [] { CORE::mfwPluginDll::onPluginExit(); });
    ASSERT_EQ(exited.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(reg.log().contains("MQTTPlugin::pluginServiceInstall(): Exiting, not installing"));
    EXPECT_FALSE(reg.log().contains("MqttManager::Start(): MQTT Start successful."));
    EXPECT_TRUE(reg.log().contains("mfwPluginDll: all threads gone"));
}

}  // namespace
}  // namespace ndpx
