#pragma once
// The host log in the system journal: one entry per line, its priority from
// the line's level, and fields that let an operator filter by module, class
// and desktop (journalctl NDPX_MODULE=ndpx_mqtt NDPX_CLASS=MqttManager).
// A line the journal does not take goes to stderr instead, so nothing is lost.

#include <mfw/log.h>
#include <platform/Journal.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::host {

// Journal priority of a host log level: 0-1 -> 7 (debug), 2 -> 6 (info),
// 3 -> 4 (warning), 4 -> 3 (error).
int journalPriorityOfLevel(int level);

// The journal fields of one line; `desktop` may be empty (not yet paired).
std::vector<platform::JournalField> journalFieldsOf(const CORE::LogRecord& record,
                                                    const std::string& identifier,
                                                    const std::string& desktop);

class JournalLogSink : public CORE::LogSink {
public:
    // `desktop` names the desktop (the agent identity) for each line: it is
    // called on every write and must be cheap and take no lock that a
    // logging thread may hold.
    JournalLogSink(std::unique_ptr<platform::Journal> journal, std::string identifier,
                   std::function<std::string()> desktop);

    void write(const CORE::LogRecord& record) override;

private:
    const std::unique_ptr<platform::Journal> journal_;
    const std::string identifier_;
    const std::function<std::string()> desktop_;
};

// True when this process's stderr is the journal (the service manager sets
// JOURNAL_STREAM to its device and inode): the journal sink then replaces
// the stderr sink rather than doubling every line.
bool stderrIsTheJournal();

}  // namespace ndpx::host
