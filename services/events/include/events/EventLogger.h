#pragma once
// Turns the agent's life-cycle events into readable entries for the host's
// event writer (the worker "System"). Warnings, errors and the two
// successful certificate events are written; other informational events are
// only published by the manager.

#include <mfw/PropertyBag.h>
#include <mfw/coreevent.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace ndpx {

class EventLogger {
public:
    enum Severity : int { kInformational = 1, kWarning = 2, kError = 3 };
    struct EventInfo {
        Severity severity;
        std::string_view messageTemplate;
    };

    // `abort` ends a wait on the event writer early (the manager stopping).
    explicit EventLogger(CORE::coreevent& abort) : abort_(abort) {}

    // True when written or deliberately not written, false on any failure.
    bool RecordEvent(const CORE::PropertyBag& bag);

    // nullptr for a type outside the table.
    static const EventInfo* Lookup(std::int64_t type);
    // The symbolic name; "MQTT_STATE_<n>" outside the table.
    static std::string EventTypeName(std::int64_t type);
    // Replaces each "${Name}" with that attribute ("unknown" when missing).
    static std::string FillTemplate(std::string_view messageTemplate,
                                    const CORE::PropertyBag* attributes);
    // One "\tName=value" line per plain attribute, without the last line feed.
    static std::string AttributeList(const CORE::PropertyBag* attributes);

private:
    CORE::coreevent& abort_;
};

}  // namespace ndpx
