#pragma once
// Property names whose values never reach the log, and the mask shown instead.

#include <set>
#include <string>
#include <string_view>

namespace ndpx {

inline constexpr std::string_view kRedactionMask = "*****";

// The process-wide, read-only set. Names compare exactly, case included.
const std::set<std::string, std::less<>>& redactionSet();
bool isRedacted(std::string_view propertyName);

}  // namespace ndpx
