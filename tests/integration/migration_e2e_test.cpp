// A desktop moved from the older transport to MQTT by an operator with
// agentctl, against a real agenthost with the module, devcloud's credential
// service and broker: bootstrap, connected, then commit on one desktop and
// rollback on another, and the refusals on the way.

#include "DesktopCloudTest.h"
#include "support/WaitUntil.h"

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

class MigrationTest : public DesktopCloudTest {
protected:
    MigrationTest() { startCloud(); }

    // The host of a desktop under `root` that runs on the older transport and
    // was told a migration is coming; quiesced beside it.
    std::unique_ptr<Process> startOnOlderTransport(const TempDir& root) {
        regctlSet(root, "MS Transport", "JMS");
        regctlSet(root, "mqtt_MigrationMsgRcvd", "true");
        regctlSet(root, "mqtt_StartupLCMSpecWaitInterval", "1");
        certctl(root, {"import", (cloud_.path() / "ca.pem").string()});
        certctl(root, {"add-crl", writeCrl("empty.crl", {})});
        auto agent = startAgent(root);
        EXPECT_TRUE(agent->waitForLine("MqttManager::WaitForLCMGeneratedSpec(): Quiesced", 30s))
            << agent->output();
        return agent;
    }
    // The LCM spec of desktop `vmId`, as a file.
    std::string spec(const std::string& vmId) {
        const std::string file = (cloud_.path() / (vmId + ".json")).string();
        const auto r =
            run({DEVCLOUD_PATH, "provision", "--dir", dir(), "--url", url_, "--vm-id", vmId,
                 "--edge-id", "e1", "--short-template-id", "t3", "--spec-file", file});
        EXPECT_EQ(r.status, 0) << r.output;
        return file;
    }
    static RunResult migrate(const TempDir& root, const std::vector<std::string>& args) {
        std::vector<std::string> argv{"migrate"};
        argv.insert(argv.end(), args.begin(), args.end());
        return agentctl(root, argv);
    }
    static bool statusIs(const TempDir& root, const std::string& name) {
        return waitUntil(
            [&] { return migrate(root, {"getstatus"}).output == "status = " + name + "\n"; }, 60s);
    }
    static bool hasCurrentCertificate(const TempDir& root) {
        const auto listed = certctl(root, {"list", "--json"}).output;
        return listed.find(R"("role" : "current")") != std::string::npos;
    }
    static std::string regGet(const TempDir& root, const std::string& name) {
        return run({REGCTL_PATH, "--root", root.path().string(), "get", kNodeManager, name}).output;
    }
};

TEST_F(MigrationTest, BootstrapConnectsThenCommitMovesTheTransportOrRollbackUndoesIt) {
    auto agent = startOnOlderTransport(root_);
    const auto early = migrate(root_, {"commit"});
    EXPECT_EQ(early.status, 1);
    EXPECT_NE(early.output.find("Migration not started, cannot perform commit (result 4)"),
              std::string::npos)
        << early.output;

    const std::string vm7 = spec("vm7");
    const auto boot = migrate(root_, {"bootstrap", vm7});
    ASSERT_EQ(boot.status, 0) << boot.output << agent->output();
    ASSERT_TRUE(statusIs(root_, "connected")) << agent->output();
    EXPECT_TRUE(agent->waitForLine(kConnected)) << agent->output();
    const auto again = migrate(root_, {"bootstrap", vm7});
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.output.find("Migration has already started, unable to bootstrap (result 2)"),
              std::string::npos)
        << again.output;
    EXPECT_EQ(regGet(root_, "MS Transport"), "JMS\n");

    const auto commit = migrate(root_, {"commit"});
    ASSERT_EQ(commit.status, 0) << commit.output << agent->output();
    EXPECT_TRUE(statusIs(root_, "commitcomplete"));
    EXPECT_EQ(regGet(root_, "MS Transport"), "MQTT\n");
    EXPECT_TRUE(agent->waitForLine("DaasAgent: received ShutdownNotify")) << agent->output();

    // A second desktop takes the other way back.
    TempDir other;
    auto second = startOnOlderTransport(other);
    ASSERT_EQ(migrate(other, {"bootstrap", spec("vm8")}).status, 0) << second->output();
    ASSERT_TRUE(statusIs(other, "connected")) << second->output();
    EXPECT_TRUE(hasCurrentCertificate(other));
    const auto rollback = migrate(other, {"rollback"});
    ASSERT_EQ(rollback.status, 0) << rollback.output << second->output();
    EXPECT_TRUE(statusIs(other, "notstarted"));
    EXPECT_EQ(regGet(other, "MS Transport"), "JMS\n");
    EXPECT_FALSE(hasCurrentCertificate(other)) << certctl(other, {"list"}).output;
    stop(*second);
    stop(*agent);
}

}  // namespace
}  // namespace ndpx::test
