// Session reports lose the fields the control plane must not get; a
// StartSession answer gains the address and listener ports, except after an
// error or when it names a host already.

#include "config/mqttConfig.h"
#include "reports/MessageTransformer.h"
#include "support/TestRegistry.h"

#include <platform/HostAddress.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using platform::SettingValue;
namespace mt = MessageTransformer;

const std::string kXmlApi = std::string(kAgentConfigurationKey) + "\\XMLAPI";
const std::string kListeners = std::string(kAgentConfigurationKey) + "\\Listeners";

class MessageTransformerTest : public ::testing::Test {
protected:
    static CORE::PropertyBag bagOf(
        std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> items) {
        CORE::PropertyBag bag;
        for (const auto& [name, value] : items) {
            bag.add(name, value);
        }
        return bag;
    }
    void addHost(CORE::PropertyBag& bag) {
        mt::AddHostAddress(bag, cfg_, [] { return std::string("192.0.2.10"); });
    }
    test::TestRegistry reg_;
    mqttConfig cfg_{reg_.shared()};
};

TEST_F(MessageTransformerTest, ReportsLoseEveryCopyOfTheUnwantedFieldsInEachSession) {
    cfg_.setUnwantedFields({L"DOMAIN", L"AGENTUPDATE"});
    CORE::PropertyBag report = bagOf({{L"HOSTNAME", L"h"}, {L"DOMAIN", L"d1"}, {L"DOMAIN", L"d2"}});
    report.addBag(L"SESSION",
                  bagOf({{L"USER", L"ann"}, {L"GROUPSIDS", L"s"}, {L"HOSTPODID", L"p"}}));
    report.addBag(L"SESSION", bagOf({{L"USER", L"bob"}, {L"APPIDHISTORY", L"a"}}));
    report.addBag(L"OTHER", bagOf({{L"GROUPSIDS", L"kept"}}));
    mt::UpdateSessionReport(report, cfg_);
    EXPECT_FALSE(report.has(L"DOMAIN"));
    EXPECT_EQ(report.get(L"HOSTNAME", L""), L"h");
    EXPECT_EQ(*report.getBagPtr(1), bagOf({{L"USER", L"ann"}}));
    EXPECT_EQ(*report.getBagPtr(2), bagOf({{L"USER", L"bob"}}));
    EXPECT_EQ(report.getBag(L"OTHER")->get(L"GROUPSIDS", L""), L"kept");
    EXPECT_TRUE(reg_.log().waitFor(
        "MessageTransformer::UpdateSessionReport(): Removing session field HOSTPODID",
        std::chrono::seconds(1), 2));

    cfg_.setUnwantedFields({});  // cleared by the control plane: nothing goes
    CORE::PropertyBag plain = bagOf({{L"DOMAIN", L"d"}});
    mt::UpdateSessionReport(plain, cfg_);
    EXPECT_TRUE(plain.has(L"DOMAIN"));
}

TEST_F(MessageTransformerTest, HostIsTheConfiguredAddressElseTheMachinesAndAGivenHostStays) {
    CORE::PropertyBag answer;
    addHost(answer);
    EXPECT_EQ(answer.getBag(L"PROTOCOL")->get(L"HOST", L""), L"192.0.2.10");

    reg_.store().set(kXmlApi, "ExternalIPAddress", SettingValue::ofString("203.0.113.5"));
    CORE::PropertyBag configured;
    configured.setBag(L"PROTOCOL", bagOf({{L"NAME", L"console"}, {L"HOST", L""}}));
    addHost(configured);
    EXPECT_EQ(*configured.getBag(L"PROTOCOL"),
              bagOf({{L"NAME", L"console"}, {L"HOST", L"203.0.113.5"}}));

    CORE::PropertyBag given;
    given.setBag(L"PROTOCOL", bagOf({{L"HOST", L"desk.example"}}));
    addHost(given);
    EXPECT_EQ(given.getBag(L"PROTOCOL")->get(L"HOST", L""), L"desk.example");
}

TEST_F(MessageTransformerTest, AnErrorCodeKeepsHostAndListenersOut) {
    reg_.store().set(kListeners, "tcp", SettingValue::ofString("4172"));
    CORE::PropertyBag failed = bagOf({{L"ERROR-CODE", L"5"}});
    addHost(failed);
    mt::AddListenerPorts(failed, cfg_);
    EXPECT_EQ(failed, bagOf({{L"ERROR-CODE", L"5"}}));
    CORE::PropertyBag emptyCode = bagOf({{L"ERROR-CODE", L""}});
    mt::AddListenerPorts(emptyCode, cfg_);
    EXPECT_TRUE(emptyCode.has(L"LISTENERS"));
}

TEST_F(MessageTransformerTest, ListenersComeFromNamedValuesElseFromWellFormedMultiStringItems) {
    reg_.store().set(kAgentConfigurationKey, "Listeners",
                     SettingValue::ofMulti({"b:2", "nocolon", "a:1", "x:1:2", "b:3"}));
    CORE::PropertyBag fromList;
    mt::AddListenerPorts(fromList, cfg_);
    EXPECT_EQ(*fromList.getBag(L"LISTENERS"), bagOf({{L"a", L"1"}, {L"b", L"3"}}));
    EXPECT_EQ(reg_.log().count("MessageTransformer::AddListenerPorts(): Malformed listener string"),
              2u);

    reg_.store().set(kListeners, "udp", SettingValue::ofString("4173"));
    reg_.store().set(kListeners, "tcp", SettingValue::ofString("4172"));
    CORE::PropertyBag named;
    mt::AddListenerPorts(named, cfg_);
    EXPECT_EQ(*named.getBag(L"LISTENERS"), bagOf({{L"tcp", L"4172"}, {L"udp", L"4173"}}));

    reg_.store().removeKey(kListeners);
    reg_.store().remove(kAgentConfigurationKey, "Listeners");
    CORE::PropertyBag none;
    mt::AddListenerPorts(none, cfg_);
    ASSERT_NE(none.getBag(L"LISTENERS"), nullptr);
    EXPECT_TRUE(none.getBag(L"LISTENERS")->empty());
}

TEST(PrimaryAddress, DefaultRouteInterfaceFirstThenAnyNonLoopback) {
    const std::vector<platform::InterfaceAddress> all{{"lo", "127.0.0.1", true, true},
                                                      {"eth0", "fe80::1", false, false},
                                                      {"eth1", "10.1.2.3", true, false},
                                                      {"eth0", "10.0.0.5", true, false}};
    EXPECT_EQ(platform::choosePrimaryAddress("eth0", all), "10.0.0.5");
    EXPECT_EQ(platform::choosePrimaryAddress("", all), "fe80::1");
    EXPECT_EQ(platform::choosePrimaryAddress("wlan0", {all[0]}), "");
}

}  // namespace
}  // namespace ndpx
