// ipcctl against the stand-in bridge: its output lines, the end on SIGTERM,
// a refusal and bad usage, by exit code.

#include "FakeBridge.h"
#include "support/Process.h"

#include <signal.h>

namespace ndpx::ipcclient::test {
namespace {

class IpcctlTest : public ::testing::Test {
protected:
    std::vector<std::string> ipcctl(std::vector<std::string> args) {
        args.insert(args.begin(), {IPCCTL_PATH, "--root", bridge_.root().string()});
        return args;
    }
    FakeBridge bridge_;
};

TEST_F(IpcctlTest, SubscribePrintsALinePerMessageUntilSigterm) {
    ndpx::test::Process process(ipcctl({"subscribe", "a/b,c/d"}));
    bridge_.accept();
    bridge_.sendIdentity("vm7");
    EXPECT_EQ(bridge_.receive(), R"({"type":"subscribe","topics":"a/b,c/d"})");
    bridge_.sendMessage("a/b", "hello world");
    bridge_.sendMessage("c/d", std::string("\0\1", 2));
    EXPECT_TRUE(process.waitForLine("a/b hello world", std::chrono::seconds(5)));
    EXPECT_TRUE(process.waitForLine("c/d base64:AAE=", std::chrono::seconds(5)));
    process.signal(SIGTERM);
    EXPECT_EQ(process.wait(), 0);
}

TEST_F(IpcctlTest, IdentityPublishRefusalAndBadUsage) {
    {
        ndpx::test::Process process(ipcctl({"identity"}));
        bridge_.accept();
        bridge_.sendIdentity("vm7");
        EXPECT_EQ(process.wait(), 0);
        process.drain();
        EXPECT_EQ(process.output(),
                  "edgeid: e1\nshorttemplateid: t3\nvmid: vm7\nidentity: e1t3_vm7\n");
    }
    {
        ndpx::test::Process process(ipcctl({"publish", "t", "x", "--qos", "2", "--retain"}));
        bridge_.accept();
        bridge_.sendIdentity("vm7");
        EXPECT_EQ(bridge_.receive(),
                  R"({"type":"publish","topic":"t","message":"eA==","qos":2,"retain":1})");
        EXPECT_EQ(process.wait(), 0);
    }
    ndpx::test::Process refused(ipcctl({"publish", "t", "x"}));
    bridge_.accept();
    bridge_.closePeer();
    EXPECT_EQ(refused.wait(), 1);
    EXPECT_TRUE(refused.waitForLine("in the include list?"));
    EXPECT_EQ(ndpx::test::run(ipcctl({"publish", "t", "x", "--qos", "3"})).status, 2);
    EXPECT_EQ(ndpx::test::run(ipcctl({"publish", "a/#", "x"})).status, 2);
}

}  // namespace
}  // namespace ndpx::ipcclient::test
