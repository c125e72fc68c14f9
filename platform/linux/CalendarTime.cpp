#include <platform/CalendarTime.h>

namespace ndpx::platform {

// The _r forms: the plain ones share one buffer among all threads.
std::tm localCalendarTime(std::time_t when) {
    std::tm fields{};
    ::localtime_r(&when, &fields);
    return fields;
}

std::tm utcCalendarTime(std::time_t when) {
    std::tm fields{};
    ::gmtime_r(&when, &fields);
    return fields;
}

}  // namespace ndpx::platform
