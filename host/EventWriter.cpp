#include "host/EventWriter.h"

#include <mfw/corestring.h>
#include <mfw/log.h>

#include <sstream>
#include <system_error>

namespace ndpx::host {
namespace {

constexpr const char* kSource = "agenthost";

int hostLogLevel(int priority) {
    if (priority <= 3) {
        return CORE::kLogError;
    }
    return priority == 4 ? CORE::kLogWarning : CORE::kLogInfo;
}

// The entry on one log line: its lines joined, indentation dropped.
std::string oneLine(const std::string& text) {
    std::istringstream lines(text);
    std::string out;
    for (std::string line; std::getline(lines, line);) {
        const auto start = line.find_first_not_of(" \t");
        if (start == std::string::npos) {
            continue;
        }
        out += (out.empty() ? "" : " | ") + line.substr(start);
    }
    return out;
}

// The event's symbolic name heads its text (e.g. "AGENT_LAUNCH_FAILED").
std::string eventName(const std::string& text) {
    const std::string first = text.substr(0, text.find('\n'));
    const bool symbolic =
        !first.empty() &&
        first.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") == std::string::npos;
    return symbolic ? first : std::string();
}

}  // namespace

int journalPriority(std::int64_t eventLogType) {
    switch (eventLogType) {
        case 1:
            return 3;  // LOG_ERR
        case 2:
            return 4;  // LOG_WARNING
        default:
            return 6;  // LOG_INFO
    }
}

EventWriter::EventWriter(std::unique_ptr<platform::Journal> journal, std::string identifier)
    : journal_(std::move(journal)), identifier_(std::move(identifier)) {}

bool EventWriter::write(const CORE::PropertyBag& request) {
    const auto text = request.get(L"text");
    if (!text) {
        CORE::__SysMessage(kSource, CORE::kLogWarning, "System: WriteWindowsEvent without text");
        return false;
    }
    const std::string message = CORE::toUtf8(*text);
    const int priority = journalPriority(request.getInt64(L"wType").value_or(0));

    std::vector<platform::JournalField> fields{{"MESSAGE", message},
                                               {"PRIORITY", std::to_string(priority)},
                                               {"SYSLOG_IDENTIFIER", identifier_}};
    if (const std::string name = eventName(message); !name.empty()) {
        fields.push_back({"NDPX_EVENT", name});
    }
    const platform::JournalResult journal = journal_->write(fields);
    if (!journal.written) {
        CORE::__SysMessage(
            kSource, CORE::kLogWarning, "System: event not written to the journal: %s",
            std::error_code(journal.error, std::generic_category()).message().c_str());
    } else if (journal.truncated) {
        CORE::__SysMessage(kSource, CORE::kLogWarning,
                           "System: event too large for the journal, written shortened");
    }

    const int level = hostLogLevel(priority);
    const bool logged = CORE::isLoggingAtLevel(level);
    CORE::__SysMessage(kSource, level, "System: event: %s", oneLine(message).c_str());
    return journal.written || logged;
}

}  // namespace ndpx::host
