// The IPC bridge end to end: agenthost with the module, the devcloud broker
// and credential service, and desktop processes (ipcctl, under the names
// the test gives it) over the real socket, one of them unprivileged.

#include "DesktopCloudTest.h"
#include "support/WaitUntil.h"

#include <sys/stat.h>

#include <filesystem>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string kIn = "desktop/e1/vm7/ipc/in";
const std::string kOut = "desktop/e1/vm7/ipc/out";
const std::string kLate = "desktop/e1/vm7/ipc/late";

class IpcBridgeTest : public DesktopCloudTest {
protected:
    // A copy of ipcctl named `name`: the bridge admits by executable name.
    // Under the desktop's root, which the unprivileged client can reach.
    std::string ipcctlNamed(const std::string& name) {
        const fs::path dir = root_.path() / "opt";
        fs::create_directories(dir);
        fs::permissions(dir, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                 fs::perms::others_read | fs::perms::others_exec);
        const fs::path copy = dir / name;
        if (!fs::exists(copy)) {
            fs::copy_file(IPCCTL_PATH, copy);
            fs::permissions(copy, fs::perms::owner_all | fs::perms::group_read |
                                      fs::perms::group_exec | fs::perms::others_read |
                                      fs::perms::others_exec);
        }
        return copy.string();
    }
    std::vector<std::string> ipcctlArgs(const std::string& name, std::vector<std::string> args,
                                        bool unprivileged = false) {
        std::vector<std::string> argv;
        if (unprivileged) {
            argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        }
        argv.insert(argv.end(), {ipcctlNamed(name), "--root", root_.path().string()});
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }
    std::unique_ptr<Process> subscriber(const std::string& name, const std::string& topics,
                                        bool unprivileged = false) {
        return std::make_unique<Process>(ipcctlArgs(name, {"subscribe", topics}, unprivileged));
    }
    void include(const std::string& name, const std::string& data) {
        const auto r = run({REGCTL_PATH, "--root", root_.path().string(), "set",
                            kNodeManager + "\\ipcincludelist", name, data});
        ASSERT_EQ(r.status, 0) << r.output;
    }
    std::unique_ptr<MqttTestClient> controlPlane(const std::string& name) {
        auto client = std::make_unique<MqttTestClient>(clientOptions(clientCert(name), name));
        EXPECT_TRUE(client->connect());
        return client;
    }
};

TEST_F(IpcBridgeTest, IncludeListedProcessesPublishAndSubscribeThroughTheSession) {
    startCloud();
    regctlSet("mqtt_IPCServerEnabled", "1");
    include("ipcctl", "1");
    include("helper", "");
    include("disabled", "0");
    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    // The unprivileged client must reach the socket through the test root.
    ::chmod(root_.path().c_str(), 0755);
    auto cloud = controlPlane("ipc-cloud");
    ASSERT_TRUE(cloud->subscribe(kOut, 1));

    // Every process learns the identity.
    const auto identity = run(ipcctlArgs("ipcctl", {"identity"}));
    EXPECT_EQ(identity.status, 0) << identity.output;
    for (const char* line :
         {"edgeid: e1\n", "shorttemplateid: t3\n", "vmid: vm7\n", "identity: e1t3_vm7\n"}) {
        EXPECT_NE(identity.output.find(line), std::string::npos) << identity.output;
    }

    // The first subscriber (unprivileged) owns the topic; a second is ignored.
    auto first = subscriber("ipcctl", kIn, true);
    ASSERT_TRUE(agent->waitForLine("Successfully subscribed to IPC topic " + kIn, 20s))
        << agent->output() << first->output();
    auto second = subscriber("helper", kIn);
    ASSERT_TRUE(agent->waitForLine("Topic already subscribed, ignoring " + kIn, 20s))
        << agent->output();
    ASSERT_TRUE(cloud->publish(kIn, "hello desktop", 1));
    EXPECT_TRUE(first->waitForLine(kIn + " hello desktop", 20s)) << first->output();

    // A process publishes with QoS 1 and the control plane receives it.
    const auto published =
        run(ipcctlArgs("helper", {"publish", kOut, "from the desktop", "--qos", "1"}));
    EXPECT_EQ(published.status, 0) << published.output;
    const auto received = cloud->waitForPayload(kOut, 20s);
    ASSERT_TRUE(received);
    EXPECT_EQ(*received, "from the desktop");

    // Not listed, and listed but disabled: refused at connect.
    EXPECT_NE(run(ipcctlArgs("stranger", {"publish", kOut, "x"})).status, 0);
    EXPECT_TRUE(agent->waitForLine("The process is not in includelist, rejecting request"));
    EXPECT_NE(run(ipcctlArgs("disabled", {"publish", kOut, "x"})).status, 0);
    EXPECT_TRUE(agent->waitForLine("The process is in includelist but has been disabled"));
    // A listed name in argv[0] (and so in the process's title) is no
    // disguise: the executable decides.
    const auto disguised = run({"/bin/bash", "-c",
                                "exec -a ipcctl " + ipcctlNamed("stranger") + " --root " +
                                    root_.path().string() + " publish " + kOut + " x"});
    EXPECT_NE(disguised.status, 0) << disguised.output;
    EXPECT_TRUE(waitUntil(
        [&] {
            return agent->countLines("The process is not in includelist, rejecting request") >= 2;
        },
        20s));

    // When the first goes, its topic is freed; a new subscriber takes it.
    first->signal(SIGTERM);
    first->wait();
    ASSERT_TRUE(agent->waitForLine("Received close from process", 20s)) << agent->output();
    EXPECT_EQ(second->countLines("hello desktop"), 0u) << second->output();
    auto third = subscriber("helper", kIn);
    const std::string subscribedIn = "Successfully subscribed to IPC topic " + kIn;
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(subscribedIn) >= 2; }, 20s))
        << agent->output();

    // Topics asked for while the broker is away are subscribed when it is
    // back, and those held before are subscribed again.
    cloud.reset();
    broker_->signal(SIGTERM);
    ASSERT_TRUE(broker_->wait(10s).has_value());
    broker_.reset();
    auto late = subscriber("helper", kLate);
    ASSERT_TRUE(agent->waitForLine("Subscribing to topic " + kLate + " on behalf of process", 20s))
        << agent->output();
    // Its saved state gone, the broker comes back without the desktop's
    // session: the agent must say so, and still restore every subscription.
    std::filesystem::remove_all(cloud_.path() / "broker" / "store");
    startBroker({});
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) >= 2; }, 60s))
        << agent->output();
    EXPECT_EQ(agent->countLines("The broker kept no session for this desktop after"), 1u)
        << agent->output();
    ASSERT_TRUE(waitUntil(
        [&] { return agent->countLines("Successfully subscribed to IPC topic " + kLate) >= 1; },
        30s))
        << agent->output();
    cloud = controlPlane("ipc-cloud-2");
    ASSERT_TRUE(cloud->publish(kLate, "after the outage", 1));
    ASSERT_TRUE(cloud->publish(kIn, "still yours", 1));
    EXPECT_TRUE(late->waitForLine(kLate + " after the outage", 20s)) << late->output();
    EXPECT_TRUE(third->waitForLine(kIn + " still yours", 20s)) << third->output();
    stop(*agent);
}

}  // namespace
}  // namespace ndpx::test
