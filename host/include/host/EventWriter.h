#pragma once
// Writes the agent's events (the "System" worker's "WriteWindowsEvent") to
// the system journal and to the host log, so that a machine without a
// journal still has them.

#include <mfw/PropertyBag.h>
#include <platform/Journal.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ndpx::host {

inline constexpr const char* kJournalIdentifier = "ndpx-agent";

// Journal priority of an event-log type code ("wType"): 1 error -> 3,
// 2 warning -> 4, 4 information (and anything else) -> 6.
int journalPriority(std::int64_t eventLogType);

class EventWriter {
public:
    explicit EventWriter(std::unique_ptr<platform::Journal> journal,
                         std::string identifier = kJournalIdentifier);

    // The request holds "wType", "wCategory", "wEventID" and "text". True
    // when the journal or the host log took the entry.
    bool write(const CORE::PropertyBag& request);

private:
    const std::unique_ptr<platform::Journal> journal_;
    const std::string identifier_;
};

}  // namespace ndpx::host
