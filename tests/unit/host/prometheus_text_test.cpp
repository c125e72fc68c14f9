// The module's metric as Prometheus reads it: every family well formed and
// typed, a histogram from the module's buckets, label values escaped, what
// the metric lacks left out; and the loopback endpoint that serves it, over a
// real socket.

#include "host/MetricsEndpoint.h"
#include "host/MetricsFile.h"
#include "host/PrometheusText.h"
#include "support/LoopbackHttp.h"
#include "support/PrometheusParser.h"
#include "support/TempDir.h"

#include <json/reader.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <tuple>

namespace ndpx::host {
namespace {

using test::parsePrometheus;

Json::Value json(const std::string& text) {
    Json::Value v;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr)) << text;
    return v;
}

// As the module reports a paired, connected desktop that answered two commands.
const char* const kModuleMetric = R"({
  "mqttState": {"state": "MQTT_STATE_CONNECTED"},
  "session": {"reconnects": 1, "lostSessions": 0, "connectedSeconds": 95},
  "publications": {"buffered": 3, "dropped": 0, "lostInFlight": 1},
  "commands": {"received": 3, "answered": 2, "duplicates": 1,
               "answerLatency": {"bounds": [0.005, 0.01, 2.5], "counts": [1, 1, 2],
                                 "count": 2, "sum": 1.2}},
  "clientCertificate": {"secondsToExpiry": 2591000,
                        "renewals": {"swapped": 1, "say \"no\" \\ twice\n": 0}},
  "pairing": {"attempts": 1, "failures": {"store": 0, "credential_service": 2}},
  "ipc": {"clients": 2}
})";

TEST(PrometheusTextTest, EveryFamilyOfAFullMetricIsWellFormedWithItsValue) {
    const auto parsed = parsePrometheus(prometheusText(json(kModuleMetric)));
    ASSERT_EQ(parsed.error, "");
    const auto& f = parsed.families;
    const auto one = [&](const std::string& name, const std::string& type) -> double {
        const auto it = f.find(name);
        if (it == f.end()) {
            ADD_FAILURE() << "no family " << name;
            return -1;
        }
        EXPECT_EQ(it->second.type, type) << name;
        EXPECT_FALSE(it->second.help.empty()) << name;
        return it->second.value(name).value_or(-1);
    };
    EXPECT_EQ(f.at("ndpx_module_reporting").value("ndpx_module_reporting"), 1.0);
    EXPECT_EQ(f.at("ndpx_mqtt_state").value("ndpx_mqtt_state", {{"state", "MQTT_STATE_CONNECTED"}}),
              1.0);
    const std::tuple<const char*, const char*, double> singles[] = {
        {"ndpx_mqtt_connected_seconds_total", "counter", 95},
        {"ndpx_mqtt_reconnects_total", "counter", 1},
        {"ndpx_mqtt_lost_sessions_total", "counter", 0},
        {"ndpx_mqtt_publications_buffered_total", "counter", 3},
        {"ndpx_mqtt_publications_dropped_total", "counter", 0},
        {"ndpx_mqtt_publications_lost_in_flight_total", "counter", 1},
        {"ndpx_mqtt_commands_received_total", "counter", 3},
        {"ndpx_mqtt_commands_answered_total", "counter", 2},
        {"ndpx_mqtt_commands_duplicate_total", "counter", 1},
        {"ndpx_client_certificate_expiry_seconds", "gauge", 2591000},
        {"ndpx_pairing_attempts_total", "counter", 1},
        {"ndpx_ipc_clients", "gauge", 2},
    };
    for (const auto& [name, type, expected] : singles) {
        EXPECT_EQ(one(name, type), expected) << name;
    }

    const auto& latency = f.at("ndpx_mqtt_command_answer_seconds");
    EXPECT_EQ(latency.type, "histogram");
    EXPECT_EQ(latency.value("ndpx_mqtt_command_answer_seconds_bucket", {{"le", "0.005"}}), 1.0);
    EXPECT_EQ(latency.value("ndpx_mqtt_command_answer_seconds_bucket", {{"le", "2.5"}}), 2.0);
    EXPECT_EQ(latency.value("ndpx_mqtt_command_answer_seconds_bucket", {{"le", "+Inf"}}), 2.0);
    EXPECT_EQ(latency.value("ndpx_mqtt_command_answer_seconds_sum"), 1.2);

    const auto& renewals = f.at("ndpx_certificate_renewals_total");
    EXPECT_EQ(renewals.value("ndpx_certificate_renewals_total", {{"result", "swapped"}}), 1.0);
    // A label value with quotes, a backslash and a line feed reads back whole.
    EXPECT_EQ(
        renewals.value("ndpx_certificate_renewals_total", {{"result", "say \"no\" \\ twice\n"}}),
        0.0);
    const auto& failures = f.at("ndpx_pairing_failures_total");
    EXPECT_EQ(failures.value("ndpx_pairing_failures_total", {{"reason", "credential_service"}}),
              2.0);
    EXPECT_EQ(failures.samples.size(), 2u);
}

TEST(PrometheusTextTest, WhatTheMetricLacksIsLeftOutNotInvented) {
    // No module yet: only the host's own series says so.
    auto parsed = parsePrometheus(prometheusText(Json::Value()));
    ASSERT_EQ(parsed.error, "");
    EXPECT_EQ(parsed.families.size(), 1u);
    EXPECT_EQ(parsed.families.at("ndpx_module_reporting").value("ndpx_module_reporting"), 0.0);

    // Not yet paired: no certificate; a histogram whose arrays disagree and
    // figures that are not numbers are dropped, the rest still served.
    parsed = parsePrometheus(prometheusText(json(R"({
      "mqttState": {"state": "MQTT_STATE_REQUIRE_BOOTSTRAP"},
      "session": {"reconnects": "many"},
      "commands": {"received": 0,
                   "answerLatency": {"bounds": [0.1, 1], "counts": [0], "count": 0, "sum": 0}}
    })")));
    ASSERT_EQ(parsed.error, "");
    const auto& f = parsed.families;
    EXPECT_TRUE(f.count("ndpx_mqtt_state"));
    EXPECT_TRUE(f.count("ndpx_mqtt_commands_received_total"));
    EXPECT_FALSE(f.count("ndpx_mqtt_reconnects_total"));
    EXPECT_FALSE(f.count("ndpx_mqtt_command_answer_seconds"));
    EXPECT_FALSE(f.count("ndpx_client_certificate_expiry_seconds"));
    EXPECT_FALSE(f.count("ndpx_ipc_clients"));
}

class MetricsEndpointTest : public ::testing::Test {
protected:
    MetricsEndpointTest() {
        metrics_->sendData({"MQTTMetrics", "ndpx_mqtt", "MQTTMetrics", 4, kModuleMetric});
    }

    std::string exchange(const std::string& request) {
        return test::loopbackExchange(endpoint_.port(), request);
    }
    static std::string body(const std::string& answer) { return test::httpBody(answer); }

    test::TempDir dir_;
    std::shared_ptr<MetricsFile> metrics_ =
        std::make_shared<MetricsFile>(dir_.path() / "metrics.json", dir_.path() / "metrics.prom");
    MetricsEndpoint endpoint_{metrics_};
};

TEST_F(MetricsEndpointTest, AScrapeGetsTheExpositionAndOtherRequestsAClearRefusal) {
    std::string error;
    ASSERT_TRUE(endpoint_.start(0, error)) << error;
    ASSERT_NE(endpoint_.port(), 0);

    const std::string answer =
        exchange("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: text/plain\r\n\r\n");
    ASSERT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n")) << answer;
    EXPECT_NE(answer.find(std::string("Content-Type: ") + kPrometheusContentType),
              std::string::npos);
    const std::string text = body(answer);
    EXPECT_NE(answer.find("Content-Length: " + std::to_string(text.size()) + "\r\n"),
              std::string::npos);
    const auto parsed = parsePrometheus(text);
    EXPECT_EQ(parsed.error, "");
    EXPECT_TRUE(parsed.families.count("ndpx_mqtt_command_answer_seconds"));
    // The textfile for node_exporter holds the same text.
    std::ostringstream file;
    file << std::ifstream(dir_.path() / "metrics.prom").rdbuf();
    EXPECT_EQ(file.str(), text);

    const std::string head = exchange("HEAD /metrics?x=1 HTTP/1.0\r\n\r\n");
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK\r\n")) << head;
    EXPECT_EQ(body(head), "");
    EXPECT_NE(head.find("Content-Length: " + std::to_string(text.size())), std::string::npos);

    EXPECT_TRUE(exchange("GET / HTTP/1.1\r\n\r\n").starts_with("HTTP/1.1 404 "));
    const std::string post = exchange("POST /metrics HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(post.starts_with("HTTP/1.1 405 ")) << post;
    EXPECT_NE(post.find("Allow: GET, HEAD\r\n"), std::string::npos);
    EXPECT_TRUE(exchange("hello\r\n\r\n").starts_with("HTTP/1.1 400 "));
}

TEST_F(MetricsEndpointTest, APortInUseIsAClearError) {
    std::string error;
    ASSERT_TRUE(endpoint_.start(0, error)) << error;
    MetricsEndpoint second(metrics_);
    EXPECT_FALSE(second.start(endpoint_.port(), error));
    EXPECT_NE(error.find("127.0.0.1:" + std::to_string(endpoint_.port())), std::string::npos)
        << error;
}

}  // namespace
}  // namespace ndpx::host
