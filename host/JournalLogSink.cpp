#include "host/JournalLogSink.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace ndpx::host {
namespace {

// "MqttManager::Start(): ..." -> "MqttManager::Start"; "" when the line
// does not begin with a function name.
std::string_view functionOf(std::string_view text) {
    const auto end = text.find("(): ");
    if (end == std::string_view::npos || end == 0) {
        return {};
    }
    const std::string_view name = text.substr(0, end);
    return name.find(' ') == std::string_view::npos ? name : std::string_view{};
}

}  // namespace

int journalPriorityOfLevel(int level) {
    switch (level) {
        case CORE::kLogError:
            return 3;
        case CORE::kLogWarning:
            return 4;
        case CORE::kLogInfo:
            return 6;
        default:
            return level > CORE::kLogError ? 3 : 7;
    }
}

std::vector<platform::JournalField> journalFieldsOf(const CORE::LogRecord& record,
                                                    const std::string& identifier,
                                                    const std::string& desktop) {
    std::vector<platform::JournalField> fields{
        {"MESSAGE", record.text},
        {"PRIORITY", std::to_string(journalPriorityOfLevel(record.level))},
        {"SYSLOG_IDENTIFIER", identifier},
        {"NDPX_MODULE", record.source},
        {"TID", std::to_string(record.threadId)},
    };
    const std::string_view function = functionOf(record.text);
    if (!function.empty()) {
        fields.push_back({"CODE_FUNC", std::string(function)});
        const auto scope = function.rfind("::");
        if (scope != std::string_view::npos) {
            fields.push_back({"NDPX_CLASS", std::string(function.substr(0, scope))});
        }
    }
    if (!desktop.empty()) {
        fields.push_back({"NDPX_DESKTOP", desktop});
    }
    return fields;
}

JournalLogSink::JournalLogSink(std::unique_ptr<platform::Journal> journal, std::string identifier,
                               std::function<std::string()> desktop)
    : journal_(std::move(journal)),
      identifier_(std::move(identifier)),
      desktop_(std::move(desktop)) {}

void JournalLogSink::write(const CORE::LogRecord& record) {
    const platform::JournalResult result = journal_->write(
        journalFieldsOf(record, identifier_, desktop_ ? desktop_() : std::string()));
    if (!result.written) {
        // The journal is away or full: the line still goes somewhere.
        const std::string line = record.timestamp + " [" + record.source + "] L" +
                                 std::to_string(record.level) + ": " + record.text + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
}

bool stderrIsTheJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");  // NOLINT(concurrency-mt-unsafe)
    struct stat st {};
    if (stream == nullptr || ::fstat(STDERR_FILENO, &st) != 0) {
        return false;
    }
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) {
        return false;
    }
    return st.st_dev == device && st.st_ino == inode;
}

}  // namespace ndpx::host
