// The notify queue the desktop manager keeps: an agent on the older
// transport starts with its bridge in it, and the registered transport
// lands in "MS Transport".

#include "host/TransportStandIns.h"
#include "support/TestRegistry.h"

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

namespace ndpx::host {
namespace {

bool queueMessage(const wchar_t* operation, const wchar_t* queue, int expectedCode = 0) {
    CORE::PropertyBag request, response;
    request.set(L"QUEUE", queue);
    const bool handled = handleNotifyQueueMessage(operation, request, response);
    EXPECT_EQ(response.getInt64(CORE::kReplyErrorCode).value_or(0), expectedCode) << queue;
    return handled;
}

TEST(NotifyQueueStandIn, AMigrationsCommitMovesTheQueueAndTheRegisteredTransport) {
    test::TestRegistry reg;
    reg.setString(test::kNodeManagerKey, "MS Transport", "JMS");
    using Members = std::vector<std::wstring>;
    EXPECT_EQ(notifyQueueMembers(), Members{L"JMSBridge"});

    ASSERT_TRUE(queueMessage(L"NotifyQueueAdd", L"MQTT"));
    EXPECT_EQ(notifyQueueMembers(), (Members{L"JMSBridge", L"MQTT"}));
    ASSERT_TRUE(queueMessage(L"NotifyQueueRegisterMessageTransport", L"MQTT"));
    ASSERT_TRUE(queueMessage(L"NotifyQueueRemove", L"JMSBridge"));
    EXPECT_EQ(notifyQueueMembers(), Members{L"MQTT"});
    EXPECT_EQ(reg.store().get(test::kNodeManagerKey, "MS Transport")->asText(), "MQTT");
    EXPECT_TRUE(
        reg.log().contains("DesktopManager: NotifyQueueRemove JMSBridge (notify queue: MQTT)"));

    // No queue named: nothing is registered, and the sender is told.
    ASSERT_TRUE(
        queueMessage(L"NotifyQueueRegisterMessageTransport", L"", CORE::kErrorHandlerFailed));
    EXPECT_FALSE(queueMessage(L"SetSSOv2Settings", L"MQTT"));
}

}  // namespace
}  // namespace ndpx::host
