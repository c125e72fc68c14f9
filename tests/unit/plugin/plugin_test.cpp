// The install decision, the FIPS switch text and the worker's answers.

#include "plugin/MQTTPlugin.h"
#include "plugin/MQTTServiceOp.h"
#include "support/TestRegistry.h"

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

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
    // This machine has no FIPS provider: asked for, it still runs, not in FIPS mode.
    EXPECT_FALSE(MQTTInstall("1"));
    EXPECT_TRUE(reg.log().contains("MQTTInstall(): Fips mode is enabled in the registry"));
    EXPECT_TRUE(reg.log().contains("MQTTInstall(): Running in Non-Fips mode = (mode:0)"));
}

class ServiceOpTest : public ::testing::Test {
protected:
    ServiceOpTest() : service_(CORE::ref<MQTTService>::adopt(new MQTTService({}))) {}
    bool call(const std::wstring& op, CORE::PropertyBag& resp) {
        MQTTServiceOp item(service_.get());
        CORE::PropertyBag req;
        return item.handleMessage(op, req, resp);
    }
    TestRegistry reg_;
    CORE::ref<MQTTService> service_;
};

TEST_F(ServiceOpTest, UnknownOperationsAnswerError120) {
    CORE::PropertyBag resp;
    EXPECT_FALSE(call(L"DoSomethingElse", resp));
    EXPECT_EQ(resp.getInt64(CORE::kReplyErrorCode), 120);
    EXPECT_TRUE(reg_.log().contains("MQTTServiceOp: DoSomethingElse"));
    EXPECT_TRUE(reg_.log().contains("Service operation: DoSomethingElse NOT IMPLEMENTED"));
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

TEST_F(ServiceOpTest, ShutdownNotifyInAnyCaseAsksTheHostToUnloadTheModule) {
    CORE::MessageFrameWork::System().AddWorkerEx(
        [](void*) -> std::unique_ptr<CORE::WorkItem> { return std::make_unique<SystemStub>(); },
        nullptr, L"System", L"stub", 0, nullptr);
    CORE::PropertyBag resp;
    EXPECT_TRUE(call(L"shutdownnotify", resp));
    std::unique_lock lock(g_posted.m);
    EXPECT_TRUE(
        g_posted.cv.wait_for(lock, std::chrono::seconds(10), [] { return !g_posted.op.empty(); }));
    EXPECT_EQ(g_posted.op, L"UnloadPlugin");
    EXPECT_EQ(g_posted.file, L"ndpx_mqtt");
    lock.unlock();
    CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
}

}  // namespace
}  // namespace ndpx

namespace ndpx {
namespace {

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
    EXPECT_EQ(send(L"PublishAsyncNotification").first, 0);
    EXPECT_TRUE(
        reg.log().contains("MqttManager::SendSessionReport(): Not publishing session report"));
    reg.log().clear();
    EXPECT_EQ(send(L"publishsessionmessage").first, 0);  // names are case-blind
    EXPECT_TRUE(reg.log().contains("MqttManager::DoPublishMessage(): Not publishing message"));
    reg.log().clear();
    EXPECT_EQ(send(L"PublishTopicMessage").first, 0);
    EXPECT_TRUE(reg.log().contains("MqttManager::DoPublishMessage(): Not publishing message"));
    reg.log().clear();
    EXPECT_EQ(send(L"SendEvent").first, 0);
    EXPECT_TRUE(reg.log().contains("MqttManager::DoPublishMessage(): Not publishing message"));
    EXPECT_EQ(send(L"MigrateToCorvid").first, CORE::kErrorNotImplemented);
    EXPECT_EQ(send(L"UpdateMqttEndpoints").first, 87);  // no ENDPOINT given
    const auto [rc, props] = send(L"GetEndpointProperties");
    EXPECT_EQ(rc, 0);
    ASSERT_NE(props.getBag(L"mqtt"), nullptr);
    EXPECT_NE(props.getBag(L"mqtt")->getBag(L"global"), nullptr);
    EXPECT_NE(props.getBag(L"mqtt")->getBag(L"edge"), nullptr);
    EXPECT_EQ(send(L"Nonsense").first, CORE::kErrorNotImplemented);
    service->stop();
}

}  // namespace
}  // namespace ndpx
