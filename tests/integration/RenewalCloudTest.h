#pragma once
// A desktop with its control plane and the renewal responder: what the
// renewal tests and the renewal fault scenarios share.

#include "DesktopCloudTest.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <memory>

namespace ndpx::test {

class RenewalCloudTest : public DesktopCloudTest {
protected:
    // devcloud's renewer on the broker, naming the credential service's URL
    // in its tokens.
    std::unique_ptr<Process> startRenewer() {
        auto renewer = std::make_unique<Process>(
            std::vector<std::string>{DEVCLOUD_PATH, "renewer", "--dir", dir(), "--port",
                                     std::to_string(brokerPort_), "--url", url_});
        EXPECT_TRUE(renewer->waitForLine("renewer ready", std::chrono::seconds(30)))
            << renewer->output();
        return renewer;
    }

    struct Certificate {
        std::string serial;
        std::string pem;
    };

    // Provisions the desktop `agent` runs for, waits until it is connected
    // and its first certificate check found the certificate good, and
    // returns that certificate.
    Certificate pairAndAwaitFirstCheck(Process& agent) {
        provisionInto(root_, url_, "vm7");
        EXPECT_TRUE(agent.waitForLine(kConnected, std::chrono::seconds(60))) << agent.output();
        EXPECT_TRUE(
            agent.waitForLine("CertMonitor::ClientCertificateRefresh(): Current "
                              "certificate is valid, checks complete."))
            << agent.output();
        return currentCertificate();
    }
    // The client certificate in use, as certctl shows it.
    Certificate currentCertificate() {
        const std::string shown =
            certctl(root_, {"show", "Agent Connect MQTT Client Certificate"}).output;
        Certificate c;
        const auto serial = shown.find("Serial:");
        if (serial != std::string::npos) {
            const auto from = shown.find_first_not_of(' ', serial + 7);
            c.serial = shown.substr(from, shown.find('\n', from) - from);
        }
        const auto begin = shown.find("-----BEGIN CERTIFICATE-----");
        const std::string end = "-----END CERTIFICATE-----";
        if (begin != std::string::npos) {
            c.pem = shown.substr(begin, shown.find(end, begin) + end.size() - begin) + "\n";
        }
        return c;
    }

    // The agent takes no token within "mqtt_CertOtpRepeatInterval" of the one
    // before. Tests that renew more than once set it to its least, 1 s, note
    // when a token was taken and wait that out before asking for the next.
    void tokenTaken() { tokenTaken_ = std::chrono::steady_clock::now(); }
    void waitOutTokenRepeat() const {
        const auto until = tokenTaken_ + std::chrono::milliseconds(1100);
        waitUntil([&] { return std::chrono::steady_clock::now() >= until; },
                  std::chrono::seconds(2));
    }

    // `devcloud send` of one command to desktop e1/vm7; status 0 when answered.
    RunResult sendCommand() {
        return run({DEVCLOUD_PATH, "send", "--dir", dir(), "--port", std::to_string(brokerPort_),
                    "--desktop", "e1/vm7", "--command", "GetHostFacts", "--timeout", "20"});
    }

private:
    std::chrono::steady_clock::time_point tokenTaken_;
};

}  // namespace ndpx::test
