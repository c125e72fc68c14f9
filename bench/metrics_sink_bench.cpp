// What the Prometheus text costs the host at each collection: the sink's
// work for the module's record with and without the textfile beside
// metrics.json (the baseline), the formatting alone, and a scrape's answer.
//
//   build/bench/metrics_sink_bench --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true

#include "host/MetricsEndpoint.h"
#include "host/MetricsFile.h"
#include "host/PrometheusText.h"

#include <benchmark/benchmark.h>
#include <json/reader.h>

#include <filesystem>
#include <sstream>
#include <string>

namespace {

// A paired desktop's record, as the module sends it.
const char* const kRecord = R"({"mqttState":{"state":"MQTT_STATE_CONNECTED"},
 "session":{"reconnects":2,"lostSessions":0,"connectedSeconds":86400},
 "publications":{"buffered":1,"dropped":0,"lostInFlight":0},
 "commands":{"received":1200,"answered":1199,"duplicates":1,
  "answerLatency":{"bounds":[0.005,0.01,0.025,0.05,0.1,0.25,0.5,1,2.5,5,10,30],
   "counts":[900,1100,1150,1180,1190,1195,1197,1198,1199,1199,1199,1199],"count":1199,"sum":31.5}},
 "pairing":{"attempts":1,"failures":{"credential_service":0,"credentials_response":0,
  "key_generation":0,"store":0}},
 "clientCertificate":{"secondsToExpiry":2500000,"lastRenewal":"2026-11-24T10:00:00Z",
  "lastRenewalResult":"swapped","renewals":{"credential service error":0,
  "no one-time password":0,"no pending certificate of the agent identity":0,
  "pending certificate obtained":1,"pending certificate refused by the broker":0,
  "swap failed":0,"swapped":1,"swapped on demand":0}},
 "ipc":{"clients":1}})";

std::filesystem::path scratch() {
    const auto dir = std::filesystem::temp_directory_path() / "ndpx-metrics-bench";
    std::filesystem::create_directories(dir);
    return dir;
}

void collect(benchmark::State& state, bool textfile) {
    const auto dir = scratch();
    ndpx::host::MetricsFile sink(dir / "metrics.json",
                                 textfile ? dir / "metrics.prom" : std::filesystem::path());
    const CORE::MetricRecord record{"MQTTMetrics", "ndpx_mqtt", "MQTTMetrics", 4, kRecord};
    for (auto _ : state) {
        benchmark::DoNotOptimize(sink.sendData(record));
    }
}

void BM_Collection_JsonOnly(benchmark::State& state) {
    collect(state, false);
}
void BM_Collection_WithTextfile(benchmark::State& state) {
    collect(state, true);
}

void BM_PrometheusText(benchmark::State& state) {
    Json::Value metric;
    std::istringstream in(kRecord);
    Json::parseFromStream(Json::CharReaderBuilder(), in, &metric, nullptr);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ndpx::host::prometheusText(metric));
    }
}

void BM_ScrapeAnswer(benchmark::State& state) {
    const auto dir = scratch();
    ndpx::host::MetricsFile sink(dir / "scrape.json");
    sink.sendData({"MQTTMetrics", "ndpx_mqtt", "MQTTMetrics", 4, kRecord});
    const std::string request = "GET /metrics HTTP/1.1\nHost: localhost\n";
    for (auto _ : state) {
        benchmark::DoNotOptimize(ndpx::host::metricsHttpAnswer(request, sink));
    }
}

BENCHMARK(BM_Collection_JsonOnly);
BENCHMARK(BM_Collection_WithTextfile);
BENCHMARK(BM_PrometheusText);
BENCHMARK(BM_ScrapeAnswer);

}  // namespace

BENCHMARK_MAIN();
