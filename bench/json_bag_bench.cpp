// Cost of the JSON <-> PropertyBag conversion next to plain JSON handling.
// "baseline" parses and writes JSON only, as a pass-through would; "ours" adds
// the round trip through a PropertyBag that every inbound command and
// outbound report makes. bench/ratio.py prints ours/baseline per document.

#include "config/MqttManagerUtil.h"

#include <mfw/log.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using ndpx::MqttManagerUtil::BagToJSON;
using ndpx::MqttManagerUtil::JSONToBag;
using ndpx::MqttManagerUtil::parseJson;
using ndpx::MqttManagerUtil::writeCompact;

Json::Value parsed(const std::string& text) {
    Json::Value value;
    if (!parseJson(text, value)) {
        std::abort();
    }
    return value;
}

// An inbound command as the control plane sends it (~300 bytes).
std::string commandDocument() {
    Json::Value cmd(Json::objectValue);
    cmd["commandId"] = "{6B29FC40-CA47-1067-B31D-00DD010662DA}";
    cmd["correlationId"] = "{0F8FAD5B-D9CB-469F-A165-70867728950E}";
    cmd["commandName"] = "LogoffSession";
    cmd["version"] = 2;
    cmd["timestamp"] = Json::Int64{1700000000123};
    cmd["urgent"] = false;
    cmd["targets"].append("desk-01");
    cmd["targets"].append("desk-02");
    Json::Value& params = cmd["params"];
    params["sessionId"] = 3;
    params["force"] = true;
    params["reason"] = "maintenance window starting";
    return writeCompact(cmd);
}

// A session report: nested arrays of objects (~5 KB).
std::string reportDocument() {
    Json::Value report(Json::objectValue);
    report["machineId"] = "VM9";
    report["agentId"] = "E1ST_VM9";
    report["reportTime"] = "2024-05-01T12:00:00Z";
    report["sequence"] = 4711;
    for (int s = 0; s < 10; ++s) {
        Json::Value session(Json::objectValue);
        session["sessionId"] = s + 1;
        session["user"] = "user" + std::to_string(s) + "@corp.example.test";
        session["state"] = s % 2 == 0 ? "active" : "disconnected";
        session["clientName"] = "THIN-CLIENT-" + std::to_string(100 + s);
        session["clientAddress"] = "10.0.0." + std::to_string(20 + s);
        session["logonTime"] = "2024-05-01T08:0" + std::to_string(s) + ":00Z";
        session["idle"] = s % 3 == 0;
        for (int p = 0; p < 5; ++p) {
            Json::Value process(Json::objectValue);
            process["name"] = "process" + std::to_string(p) + ".exe";
            process["pid"] = 1000 + 10 * s + p;
            process["memoryKb"] = 20480 + 512 * p;
            session["processes"].append(process);
        }
        session["displays"].append("1920x1080");
        session["displays"].append("2560x1440");
        report["sessions"].append(session);
    }
    return writeCompact(report);
}

const std::vector<std::pair<std::string, std::string>>& documents() {
    static const std::vector<std::pair<std::string, std::string>> docs{
        {"command", commandDocument()},
        {"report", reportDocument()},
    };
    return docs;
}

void baseline(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        Json::Value json;
        parseJson(text, json);
        std::string out = writeCompact(json);
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void ours(benchmark::State& state, const std::string& text) {
    for (auto _ : state) {
        Json::Value json;
        parseJson(text, json);
        CORE::PropertyBag bag;
        JSONToBag(json, bag);
        std::string out = writeCompact(BagToJSON(bag));
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void jsonToBagOnly(benchmark::State& state, const std::string& text) {
    const Json::Value json = parsed(text);
    for (auto _ : state) {
        CORE::PropertyBag bag;
        JSONToBag(json, bag);
        benchmark::DoNotOptimize(bag);
    }
}

void bagToJsonOnly(benchmark::State& state, const std::string& text) {
    CORE::PropertyBag bag;
    JSONToBag(parsed(text), bag);
    for (auto _ : state) {
        Json::Value json = BagToJSON(bag);
        benchmark::DoNotOptimize(json);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // The conversion logs at level 3 at most; keep the log out of the numbers.
    CORE::clearLogSinks();
    CORE::setLogLevel(CORE::kLogError);

    for (const auto& [name, text] : documents()) {
        benchmark::RegisterBenchmark(("baseline/" + name).c_str(), baseline, text);
        benchmark::RegisterBenchmark(("ours/" + name).c_str(), ours, text);
        benchmark::RegisterBenchmark(("json_to_bag/" + name).c_str(), jsonToBagOnly, text);
        benchmark::RegisterBenchmark(("bag_to_json/" + name).c_str(), bagToJsonOnly, text);
    }
    benchmark::AddCustomContext("command_bytes", std::to_string(documents()[0].second.size()));
    benchmark::AddCustomContext("report_bytes", std::to_string(documents()[1].second.size()));

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
