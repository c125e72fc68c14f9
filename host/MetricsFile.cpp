#include "host/MetricsFile.h"

#include "host/PrometheusText.h"

#include <platform/Paths.h>

#include <json/reader.h>
#include <json/writer.h>

#include <exception>
#include <fstream>
#include <memory>

namespace ndpx::host {
namespace {

// Strict, so that text which only starts like JSON ("2024-05-01", "1.2.3")
// stays the text it is; a lone number or string is still JSON.
Json::Value valueOf(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) {
            return parsed;
        }
    } catch (const std::exception&) {
        // Nested deeper than the reader's limit: not for the file as JSON.
    }
    return Json::Value(text);
}

// Meant for the monitoring tools, which need not run as this process's user:
// readable by everyone, set explicitly because the host's umask keeps
// everything else private. Written aside and renamed, so a reader never sees
// half a file. The folder is made when the first try finds none: a write
// every collection need not walk the path each time.
void writePublic(const std::filesystem::path& file, const std::string& text) {
    namespace fs = std::filesystem;
    constexpr auto kFileMode = fs::perms::owner_read | fs::perms::owner_write |
                               fs::perms::group_read | fs::perms::others_read;
    const auto tmp = file.string() + ".tmp";
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) {
        std::string error;
        if (!createRunFolder(file.parent_path(), error)) {
            return;
        }
        out.open(tmp, std::ios::trunc);
    }
    out << text;
    out.close();
    std::error_code ec;
    fs::permissions(tmp, kFileMode, ec);
    fs::rename(tmp, file, ec);
}

constexpr const char* kModuleKey = "MQTTMetrics";

}  // namespace

bool createRunFolder(const std::filesystem::path& dir, std::string& error) {
    namespace fs = std::filesystem;
    constexpr auto kFolderMode =
        fs::perms::all & ~(fs::perms::group_write | fs::perms::others_write);
    return platform::paths::createDirectories(dir, kFolderMode, error);
}

MetricsFile::MetricsFile(std::filesystem::path file, std::filesystem::path textfile)
    : file_(std::move(file)), textfile_(std::move(textfile)) {}

bool MetricsFile::sendData(const CORE::MetricRecord& record) {
    Json::Value entry(Json::objectValue);
    entry["source"] = record.source;
    entry["category"] = record.category;
    entry["dataType"] = record.dataType;
    entry["value"] = valueOf(record.value);
    std::lock_guard lock(mutex_);
    latest_[record.key] = std::move(entry);
    writeLockHeld(record.key == kModuleKey);
    return true;
}

Json::Value MetricsFile::latest(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return latest_.get(key, Json::Value());
}

std::string MetricsFile::prometheus() const {
    std::lock_guard lock(mutex_);
    return prometheusLockHeld();
}

std::string MetricsFile::prometheusLockHeld() const {
    return prometheusText(latest_.get(kModuleKey, Json::Value()).get("value", Json::Value()));
}

void MetricsFile::writeLockHeld(bool moduleChanged) {
    writePublic(file_, Json::writeString(Json::StreamWriterBuilder(), latest_) + '\n');
    if (moduleChanged && !textfile_.empty()) {
        writePublic(textfile_, prometheusLockHeld());
    }
}

bool MetricsCollector::TimerCallback() {
    CORE::collectMetrics();
    return true;
}

}  // namespace ndpx::host
