// The "System" worker's "RequestSystemReboot": only logged with --reboot=log,
// the default under any root but "/"; otherwise handed to the system, whose
// refusal reaches the sender. The system's request is a stand-in here.

#include "host/SystemWorker.h"
#include "support/TestRegistry.h"

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

namespace ndpx::host {
namespace {

TEST(SystemReboot, LoggedOnlyUnderATestRootAndARefusalReachesTheSender) {
    EXPECT_EQ(RebootPolicy::defaultMode("/"), RebootPolicy::Mode::System);
    EXPECT_EQ(RebootPolicy::defaultMode("/tmp/root"), RebootPolicy::Mode::Log);

    test::TestRegistry reg;
    CORE::PluginLoader loader;
    EventWriter events(platform::makeJournal((reg.root() / "journal").string()));
    int asked = 0;
    const auto refuse = [&asked](std::string& error) {
        ++asked;
        error = "no logind here";
        return false;
    };
    const auto answer = [&](RebootPolicy::Mode mode) {
        const SystemWorker system(loader, events, {mode, refuse});
        CORE::PropertyBag request, response;
        request.set(L"Reason", L"TemplateHandler (domain join)");
        return CORE::MessageHandler::SendMsg(L"System", L"RequestSystemReboot", request, response,
                                             10000);
    };

    EXPECT_EQ(answer(RebootPolicy::Mode::Log), 0);
    EXPECT_TRUE(
        reg.log().contains("System reboot requested by TemplateHandler (domain join); "
                           "not rebooting (--reboot=log)"));
    EXPECT_EQ(asked, 0);

    EXPECT_EQ(answer(RebootPolicy::Mode::System), CORE::kErrorHandlerFailed);
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(reg.log().contains("System: reboot refused: no logind here"));
}

}  // namespace
}  // namespace ndpx::host
