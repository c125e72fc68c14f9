// A desktop renews its client certificate by itself, live: agenthost with the
// module, the devcloud broker (with a revocation list), credential service and
// renewal responder, all real processes.

#include "RenewalCloudTest.h"
#include "support/WaitUntil.h"

#include <json/reader.h>

#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <stop_token>
#include <thread>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kRequesting =
    "CertMonitor::GeneratePendingCertificate(): Requesting new pending certificate";
const std::string kTokenReceived =
    "CertMonitor::HandleOTPTokenResponseMessage(): Received OTP token message";
const std::string kPendingObtained =
    "CertMonitor::GeneratePendingCertificate(): Successfully generated new client pending "
    "certificate";
const std::string kSwapped =
    "CertMonitor::ActivatePendingCertificate(): Successfully swapped the current and pending "
    "certificates.";

std::optional<Json::Value> parseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors) ||
        !value.isObject()) {
        return std::nullopt;
    }
    return value;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// What the control plane sees of the desktop: answers by command id, events
// in order, and the one-time passwords it handed out.
class Seen {
public:
    void operator()(const devcloud::Message& m) {
        const auto json = parseJson(m.payload);
        if (!json) {
            return;
        }
        std::lock_guard lock(mutex_);
        if (endsWith(m.topic, "/sessions/response")) {
            ++answers_[(*json)["ID"].asString()];
        } else if (endsWith(m.topic, "/eventlogger")) {
            events_.push_back((*json)["Type"].asString());
        } else if (endsWith(m.topic, "/credentials/token")) {
            otps_.push_back((*json)["otp"].asString());
        }
    }
    std::size_t answered() const {
        std::lock_guard lock(mutex_);
        return answers_.size();
    }
    int answersTo(const std::string& id) const {
        std::lock_guard lock(mutex_);
        const auto it = answers_.find(id);
        return it == answers_.end() ? 0 : it->second;
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<std::string> otps() const {
        std::lock_guard lock(mutex_);
        return otps_;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, int> answers_;
    std::vector<std::string> events_;
    std::vector<std::string> otps_;
};

// The control plane sending desktop e1/vm7 a command every 100 ms, each with
// an id of its own, until stopped.
class CommandStream {
public:
    explicit CommandStream(ClientOptions options) : client_(std::move(options)) {
        EXPECT_TRUE(client_.connect());
        thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
    }
    std::size_t sent() const {
        std::lock_guard lock(mutex_);
        return ids_.size();
    }
    // Stops sending; the ids sent.
    std::vector<std::string> stop() {
        thread_.request_stop();
        thread_.join();
        return ids_;
    }

private:
    void run(std::stop_token stop) {
        for (int n = 0; !stop.stop_requested(); ++n) {
            const std::string id = "renewal-cmd-" + std::to_string(n);
            const std::string command = R"({"ID":")" + id + R"(","COMMAND":"GetHostFacts"})";
            EXPECT_TRUE(
                client_.publish("desktop/e1/vm7/agent/sessions/commands", command, 1, false, 5s))
                << client_.lastError();
            {
                std::lock_guard lock(mutex_);
                ids_.push_back(id);
            }
            std::mutex pace;
            std::unique_lock paceLock(pace);
            std::condition_variable_any().wait_for(paceLock, stop, 100ms, [] { return false; });
        }
    }

    MqttTestClient client_;
    mutable std::mutex mutex_;
    std::vector<std::string> ids_;
    std::jthread thread_;
};

class CertificateRenewalTest : public RenewalCloudTest {
protected:
    // True when the `lines` show in `output` in this order.
    static bool inOrder(const std::string& output, const std::vector<std::string>& lines) {
        std::size_t at = 0;
        for (const auto& line : lines) {
            at = output.find(line, at);
            if (at == std::string::npos) {
                return false;
            }
        }
        return true;
    }
};

// A certificate valid for five minutes, checked hourly, is renewed at the
// first check and swapped in at once, while commands keep coming. The control
// plane answers slowly at first (the renewer is paused), so commands are
// already flowing when the renewal goes ahead.
TEST_F(CertificateRenewalTest,
       AShortLivedCertificateIsRenewedAndSwappedLiveAnsweringEveryCommandOnce) {
    const std::string crl = writeCrl("ca.crl", {});
    startCloud({"--crl", crl}, {"--client-validity", "5m"});
    regctlSet("mqtt_CertMonitorIntervalHours", "1");
    Seen seen;
    auto watch = watcher([&seen](const devcloud::Message& m) { seen(m); });
    auto renewer = startRenewer();
    renewer->signal(SIGSTOP);

    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    const Certificate old = currentCertificate();
    ASSERT_FALSE(old.pem.empty());
    ASSERT_TRUE(agent->waitForLine(kRequesting, 20s)) << agent->output();

    CommandStream commands(clientOptions(clientCert("commander"), "commander"));
    ASSERT_TRUE(waitUntil([&] { return seen.answered() >= 5; }, 20s));
    renewer->signal(SIGCONT);
    EXPECT_TRUE(renewer->waitForLine("token sent for e1t3_vm7", 20s)) << renewer->output();
    ASSERT_TRUE(agent->waitForLine(kSwapped, 60s)) << agent->output();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) == 2; }, 30s))
        << agent->output();
    const std::size_t atReconnect = commands.sent();
    ASSERT_TRUE(waitUntil([&] { return commands.sent() >= atReconnect + 10; }, 10s));
    const auto ids = commands.stop();

    EXPECT_TRUE(waitUntil([&] { return seen.answered() >= ids.size(); }, 30s))
        << seen.answered() << " of " << ids.size() << " commands answered";
    for (const auto& id : ids) {
        EXPECT_EQ(seen.answersTo(id), 1) << id;
    }
    EXPECT_TRUE(inOrder(agent->output(), {kRequesting, kTokenReceived, kPendingObtained, kSwapped,
                                          "MqttManager::certificateSwapped()", kConnected}))
        << agent->output();
    const Certificate renewed = currentCertificate();
    EXPECT_NE(renewed.serial, old.serial);
    EXPECT_TRUE(waitUntil(
        [&] {
            const auto events = seen.events();
            return events == std::vector<std::string>{"1015", "1017"};
        },
        10s));
    EXPECT_EQ(certctl(root_, {"list"}).output.find("pending client certificate"), std::string::npos)
        << "the pending certificate became the current one";

    // Only the new certificate can connect now: the old one's serial goes on
    // the broker's revocation list, with a control certificate beside it, and
    // the broker starts again on its port.
    const std::string oldFile = (cloud_.path() / "old.pem").string();
    std::ofstream(oldFile) << old.pem;
    const std::string control = clientCert("revoked-control");
    writeCrl("ca.crl", {oldFile, control + ".pem"});
    startBroker({"--crl", crl});
    MqttTestClient refused(clientOptions(control, "revoked-control"));
    EXPECT_FALSE(refused.connect(5s)) << "the broker does not check its revocation list";
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) >= 3; }, 60s))
        << agent->output();
    const auto answer = sendCommand();
    EXPECT_EQ(answer.status, 0) << answer.output;

    for (const auto& otp : seen.otps()) {
        EXPECT_EQ(agent->output().find(otp), std::string::npos) << "a password reached the log";
    }
    stop(*agent);
}

// An operator's swap trigger on a running agent with a certificate good for a
// month: a fresh certificate is obtained, swapped in and connected with.
TEST_F(CertificateRenewalTest, TheSwapTriggerRefreshesSwapsAndReconnects) {
    startCloud();
    regctlSet("mqtt_CertExpiryDays", "7");
    auto renewer = startRenewer();
    auto agent = startAgent();
    const Certificate old = pairAndAwaitFirstCheck(*agent);
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(agent->countLines(kRequesting), 0u);

    regctlSet("mqtt_TriggerCertSwap", "1");
    ASSERT_TRUE(agent->waitForLine(kSwapped, 60s)) << agent->output();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) == 2; }, 30s))
        << agent->output();
    EXPECT_TRUE(inOrder(
        agent->output(),
        {"CertMonitor::ClientCertificateRefresh(): Forced pending cert refresh.", kPendingObtained,
         "CertMonitor::ClientCertificateRefresh(): Forcing cert swap.", kSwapped}))
        << agent->output();
    EXPECT_EQ(renewer->countLines("reason \"forced\""), 1u) << renewer->output();
    EXPECT_NE(currentCertificate().serial, old.serial);
    stop(*agent);
}

// SET_ID: the control plane moves the desktop to new IDs. The desktop gets a
// certificate for its new identity through renewal, swaps it in and carries
// on at the new topics, and a restart connects there without pairing again.
TEST_F(CertificateRenewalTest, SetIdMovesTheDesktopWithACertificateForItsNewIdentity) {
    startCloud();
    regctlSet("mqtt_CertExpiryDays", "7");
    auto renewer = startRenewer();
    auto agent = startAgent();
    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine(kConnected, 60s)) << agent->output();
    MqttTestClient moved(clientOptions(clientCert("moved"), "moved"));
    ASSERT_TRUE(moved.connect());
    ASSERT_TRUE(moved.subscribe("desktop/e2/vm7/agent/#", 1));
    const auto ordered =
        run({DEVCLOUD_PATH, "set-id", "--dir", dir(), "--port", std::to_string(brokerPort_),
             "--desktop", "e1/vm7", "--edge-id", "e2", "--short-template-id", "t9"});
    ASSERT_EQ(ordered.status, 0) << ordered.output;

    ASSERT_TRUE(agent->waitForLine(kSwapped, 60s)) << agent->output();
    ASSERT_TRUE(waitUntil([&] { return agent->countLines(kConnected) == 2; }, 30s))
        << agent->output();
    EXPECT_TRUE(renewer->waitForLine("token sent for e1t3_vm7 (vmId vm7, moving to e2t9_vm7"))
        << renewer->output();
    const std::string shown =
        certctl(root_, {"show", "Agent Connect MQTT Client Certificate"}).output;
    EXPECT_NE(shown.find("CN=e2t9_vm7"), std::string::npos) << shown;
    // At the new topics the desktop announces itself and answers commands.
    const auto status = moved.waitForPayload("desktop/e2/vm7/agent/status", 30s);
    ASSERT_TRUE(status);
    EXPECT_NE(status->find("NEED_ID"), std::string::npos) << *status;
    const auto send = [&] {
        return run({DEVCLOUD_PATH, "send", "--dir", dir(), "--port", std::to_string(brokerPort_),
                    "--desktop", "e2/vm7", "--command", "GetHostFacts", "--timeout", "20"});
    };
    const auto answer = send();
    EXPECT_EQ(answer.status, 0) << answer.output;

    // Started again, it connects as the new identity from what it stored.
    const std::size_t issued = credsvc_->countLines("200 issued");
    stop(*agent);
    auto again = startAgent();
    ASSERT_TRUE(again->waitForLine(kConnected, 60s)) << again->output();
    EXPECT_EQ(again->countLines("MqttManager::RequestCredentials(): Skipping credentials request"),
              1u);
    EXPECT_EQ(send().status, 0);
    EXPECT_EQ(credsvc_->countLines("200 issued"), issued);
    stop(*again);
}

}  // namespace
}  // namespace ndpx::test
