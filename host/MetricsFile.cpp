#include "MetricsFile.h"

#include <json/reader.h>
#include <json/writer.h>

#include <fstream>

namespace ndpx::host {

MetricsFile::MetricsFile(std::filesystem::path file) : file_(std::move(file)) {}

bool MetricsFile::sendData(const CORE::MetricRecord& record) {
    std::lock_guard lock(mutex_);
    latest_[record.key] = record;
    writeLockHeld();
    return true;
}

void MetricsFile::writeLockHeld() {
    Json::Value root(Json::objectValue);
    for (const auto& [key, r] : latest_) {
        Json::Value entry(Json::objectValue);
        entry["source"] = r.source;
        entry["category"] = r.category;
        entry["dataType"] = r.dataType;
        Json::Value parsed;
        Json::CharReaderBuilder builder;
        std::string errors;
        std::istringstream in(r.value);
        entry["value"] =
            Json::parseFromStream(builder, in, &parsed, &errors) ? parsed : Json::Value(r.value);
        root[key] = entry;
    }
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    // Written aside and renamed, so a reader never sees half a file.
    const auto tmp = file_.string() + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        Json::StreamWriterBuilder writer;
        out << Json::writeString(writer, root) << '\n';
    }
    std::filesystem::rename(tmp, file_, ec);
}

bool MetricsCollector::TimerCallback() {
    CORE::collectMetrics();
    return true;
}

}  // namespace ndpx::host
