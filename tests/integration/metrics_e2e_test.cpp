// What a Prometheus scraper on the desktop sees: after a pairing and a
// command (and that command once more), every series of the module is on
// the loopback endpoint with a value that follows from what happened, well
// formed by a strict reading, and the textfile for node_exporter says the
// same.

#include "DesktopCloudTest.h"
#include "support/LoopbackHttp.h"
#include "support/PrometheusParser.h"
#include "support/WaitUntil.h"

#include <regex>
#include <sstream>

namespace ndpx::test {
namespace {

using namespace std::chrono_literals;

const std::string kCommands = "desktop/e1/vm7/agent/sessions/commands";

// What the Prometheus client library's own parser reads in `file`: "FAMILIES
// SAMPLES". The system's Python, where the Debian package puts the library.
std::string referenceCount(const std::filesystem::path& file) {
    const auto r = run({"/usr/bin/python3", "-c",
                        "import sys\n"
                        "from prometheus_client.parser import text_string_to_metric_families\n"
                        "fs = list(text_string_to_metric_families(open(sys.argv[1]).read()))\n"
                        "print(len(fs), sum(len(f.samples) for f in fs))\n",
                        file.string()});
    EXPECT_EQ(r.status, 0) << r.output;
    return r.output;
}

class MetricsEndpointE2eTest : public DesktopCloudTest {
protected:
    PromText scrape() const {
        const std::string answer =
            loopbackExchange(port_, "GET /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n");
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK")) << answer;
        return parsePrometheus(httpBody(answer));
    }
    static double valueOf(const PromText& text, const std::string& family,
                          const std::map<std::string, std::string>& labels = {}) {
        const auto it = text.families.find(family);
        return it == text.families.end() ? -1 : it->second.value(family, labels).value_or(-1);
    }

    std::uint16_t port_ = 0;
};

TEST_F(MetricsEndpointE2eTest, AfterPairingAndACommandEverySeriesHasItsValue) {
    startCloud();
    auto watch = watcher();
    auto agent = std::make_unique<Process>(std::vector<std::string>{
        AGENTHOST_PATH, "--root", root_.path().string(), "--plugin", MODULE_PATH, "--log-level",
        "0", "--metrics-interval", "1", "--metrics-port", "0"});
    ASSERT_TRUE(agent->waitForLine("metrics at http://127.0.0.1:", 30s)) << agent->output();
    std::smatch match;
    const std::string output = agent->output();
    ASSERT_TRUE(std::regex_search(output, match, std::regex("127\\.0\\.0\\.1:(\\d+)/metrics")));
    port_ = static_cast<std::uint16_t>(std::stoi(match[1]));

    provisionInto(root_, url_, "vm7");
    ASSERT_TRUE(agent->waitForLine("Successfully subscribed to topic: " + kCommands, 60s))
        << agent->output();
    const std::string command = R"({"ID":"metrics-1","COMMAND":"GetHostFacts"})";
    ASSERT_TRUE(watch->publish(kCommands, command, 1, false, 5s));
    ASSERT_TRUE(watch->waitForPayload("desktop/e1/vm7/agent/sessions/response", 20s));
    // Sent again, as a control plane does when it missed the answer: dropped.
    ASSERT_TRUE(watch->publish(kCommands, command, 1, false, 5s));

    PromText text;
    ASSERT_TRUE(waitUntil(
        [&] {
            text = scrape();
            return valueOf(text, "ndpx_mqtt_commands_duplicate_total") >= 1 &&
                   valueOf(text, "ndpx_mqtt_connected_seconds_total") >= 1;
        },
        20s))
        << agent->output();
    ASSERT_EQ(text.error, "");

    EXPECT_EQ(valueOf(text, "ndpx_module_reporting"), 1);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_state", {{"state", "MQTT_STATE_CONNECTED"}}), 1);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_reconnects_total"), 0);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_lost_sessions_total"), 0);
    EXPECT_GE(valueOf(text, "ndpx_mqtt_publications_buffered_total"), 0);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_publications_dropped_total"), 0);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_publications_lost_in_flight_total"), 0);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_commands_received_total"), 2);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_commands_answered_total"), 1);
    EXPECT_EQ(valueOf(text, "ndpx_mqtt_commands_duplicate_total"), 1);
    const PromFamily& latency = text.families.at("ndpx_mqtt_command_answer_seconds");
    EXPECT_EQ(latency.value("ndpx_mqtt_command_answer_seconds_count"), 1.0);
    EXPECT_GT(latency.value("ndpx_mqtt_command_answer_seconds_sum").value_or(0), 0.0);
    EXPECT_LT(latency.value("ndpx_mqtt_command_answer_seconds_sum").value_or(99), 20.0);
    // A fresh certificate: days to run, not more than its validity.
    const double expiry = valueOf(text, "ndpx_client_certificate_expiry_seconds");
    EXPECT_GT(expiry, 86400);
    EXPECT_LE(expiry, 400 * 86400);
    const PromFamily& renewals = text.families.at("ndpx_certificate_renewals_total");
    EXPECT_FALSE(renewals.samples.empty());
    for (const auto& sample : renewals.samples) {
        EXPECT_EQ(sample.value, 0) << sample.labels.at("result");
    }
    EXPECT_EQ(valueOf(text, "ndpx_pairing_attempts_total"), 1);
    const PromFamily& failures = text.families.at("ndpx_pairing_failures_total");
    EXPECT_EQ(failures.samples.size(), 4u);
    for (const auto& sample : failures.samples) {
        EXPECT_EQ(sample.value, 0) << sample.labels.at("reason");
    }
    EXPECT_EQ(valueOf(text, "ndpx_ipc_clients"), 0);

    // The textfile has the same families, from the same collection or a later
    // one, and the client library reads it as this test does.
    const auto textfile = root_.path() / "run/Brasswick/metrics.prom";
    std::ostringstream file;
    file << std::ifstream(textfile).rdbuf();
    const PromText fromFile = parsePrometheus(file.str());
    EXPECT_EQ(fromFile.error, "");
    ASSERT_EQ(fromFile.families.size(), text.families.size());
    std::size_t samples = 0;
    for (const auto& [name, family] : text.families) {
        EXPECT_TRUE(fromFile.families.count(name)) << name;
        samples += family.samples.size();
    }
    EXPECT_EQ(referenceCount(textfile),
              std::to_string(text.families.size()) + " " + std::to_string(samples) + "\n");
    stop(*agent);
}

}  // namespace
}  // namespace ndpx::test
