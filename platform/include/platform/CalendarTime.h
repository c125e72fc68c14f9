#pragma once
// Calendar fields of a point in time, in this machine's time zone or in UTC.
// Safe to call from any thread.

#include <ctime>

namespace ndpx::platform {

std::tm localCalendarTime(std::time_t when);
std::tm utcCalendarTime(std::time_t when);

}  // namespace ndpx::platform
