#pragma once
// Property names whose values never reach the log, and the mask shown instead.

#include <cstddef>
#include <set>
#include <string>
#include <string_view>

namespace ndpx {

inline constexpr std::string_view kRedactionMask = "*****";

// The process-wide, read-only set. Names compare exactly, case included.
const std::set<std::string, std::less<>>& redactionSet();
bool isRedacted(std::string_view propertyName);

// How much of a payload logSafePayload shows, before the size note.
inline constexpr std::size_t kLogSafePayloadChars = 512;

// A payload that may not parse (cut off, malformed, huge, not UTF-8) as text
// for one log line. The value of every member named in the redaction set is
// masked, found by a tolerant scan for "name" : value (a string, a bare word,
// an object or an array; also in JSON text quoted inside a string). Bytes
// outside printable ASCII are written \xNN. Text beyond `maxChars` is cut,
// and the payload's full size noted: "... (5242880 bytes)".
std::string logSafePayload(std::string_view payload, std::size_t maxChars = kLogSafePayloadChars);

}  // namespace ndpx
