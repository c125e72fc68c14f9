#pragma once
// A desktop with its control plane and the renewal responder: what the
// renewal tests and the renewal fault scenarios share.

#include "DesktopCloudTest.h"

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

    // `devcloud send` of one command to desktop e1/vm7; status 0 when answered.
    RunResult sendCommand() {
        return run({DEVCLOUD_PATH, "send", "--dir", dir(), "--port", std::to_string(brokerPort_),
                    "--desktop", "e1/vm7", "--command", "GetHostFacts", "--timeout", "20"});
    }
};

}  // namespace ndpx::test
