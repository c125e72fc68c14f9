#include "MetricsFile.h"

#include <platform/Paths.h>

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
    // Meant for the monitoring tools, which need not run as this process's
    // user: readable by everyone, with folders everyone may pass, set
    // explicitly because the host's umask keeps everything else private.
    namespace fs = std::filesystem;
    constexpr auto kFolderMode =
        fs::perms::all & ~(fs::perms::group_write | fs::perms::others_write);
    constexpr auto kFileMode = fs::perms::owner_read | fs::perms::owner_write |
                               fs::perms::group_read | fs::perms::others_read;
    std::string error;
    if (!platform::paths::createDirectories(file_.parent_path(), kFolderMode, error)) {
        return;
    }
    // Written aside and renamed, so a reader never sees half a file.
    const auto tmp = file_.string() + ".tmp";
    {
        std::ofstream out(tmp, std::ios::trunc);
        Json::StreamWriterBuilder writer;
        out << Json::writeString(writer, root) << '\n';
    }
    std::error_code ec;
    fs::permissions(tmp, kFileMode, ec);
    fs::rename(tmp, file_, ec);
}

bool MetricsCollector::TimerCallback() {
    CORE::collectMetrics();
    return true;
}

}  // namespace ndpx::host
