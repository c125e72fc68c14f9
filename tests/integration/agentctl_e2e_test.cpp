// agentctl against a real agenthost with the module, over the host's real
// control socket: the status of a paired desktop, requests to the host's
// workers, an event published through the module, and the refusals: another
// user, bad arguments, a host that is not running.

#include "DesktopCloudTest.h"
#include "support/WaitUntil.h"

#include <json/reader.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

class AgentctlTest : public DesktopCloudTest {
protected:
    std::unique_ptr<Process> startHost() {
        return std::make_unique<Process>(
            std::vector<std::string>{AGENTHOST_PATH, "--root", root_.path().string(), "--plugin",
                                     MODULE_PATH, "--log-level", "0", "--metrics-interval", "1"});
    }
    // agentctl status as user `uid`: its exit status and output.
    RunResult statusAs(uid_t uid) {
        const auto out = cloud_.path() / "as-user.txt";
        const pid_t pid = ::fork();
        if (pid == 0) {
            const int fd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            ::dup2(fd, 1);
            ::dup2(fd, 2);
            if (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 ||
                ::setresuid(uid, uid, uid) != 0) {
                ::_exit(99);
            }
            const std::string root = root_.path().string();
            ::execl(AGENTCTL_PATH, AGENTCTL_PATH, "--root", root.c_str(), "status", nullptr);
            ::_exit(98);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        std::ostringstream text;
        text << std::ifstream(out).rdbuf();
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text.str()};
    }
};

Json::Value parse(const std::string& text) {
    Json::Value v;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr)) << text;
    return v;
}

TEST_F(AgentctlTest, StatusOfAPairedDesktopRequestsToWorkersAndAnEventPublished) {
    startCloud();
    std::mutex mutex;
    std::vector<Json::Value> events;
    auto watch = watcher([&](const devcloud::Message& m) {
        if (m.topic.ends_with("/eventlogger")) {
            std::lock_guard lock(mutex);
            events.push_back(parse(m.payload));
        }
    });
    auto agent = startHost();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    // A metric collected once connected.
    const std::string collected = "Sent data to LmMonService. Key: MQTTMetrics";
    const auto before = agent->countLines(collected);
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(collected) > before; }, 10s));

    const auto json = agentctl({"--json", "status"});
    ASSERT_EQ(json.status, 0) << json.output;
    const Json::Value status = parse(json.output)["status"];
    EXPECT_EQ(status["state"].asString(), "MQTT_STATE_CONNECTED") << json.output;
    EXPECT_EQ(status["identity"].asString(), "e1t3_vm7");
    EXPECT_NE(status["endpoint"].asString().find(std::to_string(brokerPort_)), std::string::npos);
    EXPECT_GT(status["clientCertificate"]["secondsToExpiry"].asInt64(), 86400);
    EXPECT_TRUE(status["publications"]["dropped"].isUInt64()) << json.output;
    // A first connection has no session to keep: none counts as lost.
    ASSERT_TRUE(status["session"]["lostSessions"].isUInt64()) << json.output;
    EXPECT_EQ(status["session"]["lostSessions"].asUInt64(), 0u);
    const auto text = agentctl({"status"});
    EXPECT_NE(text.output.find("state          MQTT_STATE_CONNECTED\n"), std::string::npos)
        << text.output;
    std::cout << text.output;  // what an operator sees

    const auto facts = agentctl({"send", "DesktopManager", "GetHostFacts"});
    EXPECT_EQ(facts.status, 0) << facts.output;
    EXPECT_NE(facts.output.find("RESULT = OK\n"), std::string::npos) << facts.output;
    const auto nobody = agentctl({"send", "Nobody", "Ping"});
    EXPECT_EQ(nobody.status, 1);
    EXPECT_NE(nobody.output.find("no worker named \"Nobody\""), std::string::npos);

    ASSERT_EQ(agentctl({"event", "1015", "reason=operator test"}).status, 0);
    ASSERT_TRUE(waitUntil([&] {
        std::lock_guard lock(mutex);
        return !events.empty();
    }));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(events[0]["Type"].asString(), "1015");
        EXPECT_EQ(events[0]["attributes"]["reason"].asString(), "operator test");
    }
    stop(*agent);
}

TEST_F(AgentctlTest, OtherUsersBadArgumentsAndAStoppedHostAreRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    auto agent = startHost();
    ASSERT_TRUE(agent->waitForLine("MessageFrameWork: worker MQTT added")) << agent->output();
    const auto socket = root_.path() / "run" / "Brasswick" / "agentctl.sock";

    // The socket's mode keeps others out; past it, the host's own check does.
    const auto denied = statusAs(65534);
    EXPECT_EQ(denied.status, 3) << denied.output;
    EXPECT_NE(denied.output.find("only root may control agenthost"), std::string::npos);
    std::filesystem::permissions(root_.path(), std::filesystem::perms::all);
    std::filesystem::permissions(root_.path() / "run", std::filesystem::perms::all);
    std::filesystem::permissions(socket, std::filesystem::perms::all);
    const auto refused = statusAs(65534);
    EXPECT_EQ(refused.status, 3) << refused.output;
    EXPECT_NE(refused.output.find("refused: uid 65534 is not root"), std::string::npos)
        << refused.output;
    EXPECT_TRUE(agent->waitForLine("agentctl: refused uid 65534")) << agent->output();

    EXPECT_EQ(agentctl({"send", "MQTT", "SendEvent", "novalue"}).status, 2);
    EXPECT_EQ(agentctl({"migrate", "bootstrap", (cloud_.path() / "none.json").string()}).status, 2);
    EXPECT_EQ(agentctl({"migrate", "bootstrap", cloud_.path().string()}).status, 2);
    EXPECT_EQ(agentctl({"frobnicate"}).status, 2);

    stop(*agent);
    const auto gone = agentctl({"status"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_NE(gone.output.find("agenthost is not running"), std::string::npos) << gone.output;
}

}  // namespace
}  // namespace ndpx::test
