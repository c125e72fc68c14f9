#pragma once
// What certctl shows of a stored certificate, as text for people and as JSON
// for scripts. The agent's client certificates (current and pending) also
// show their serial number and the time left, so an operator can follow the
// automatic renewal. Kept apart from main() so tests can check the output
// against a fixed clock.

#include "certs/CertUtilityInterface.h"

#include <json/value.h>

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace ndpx::certctl {

// Whole seconds: certificates hold times to the second, and far dates (the
// year 9999 of certificates without an end) fit.
using Time = std::chrono::sys_seconds;

// The current time, rounded down to the second.
Time currentTime();

enum class Role { Current, Pending, Other };

struct CertSummary {
    std::string friendlyName;
    Role role = Role::Other;
    std::string subject;
    std::string issuer;
    std::string serial;
    std::string sha256;
    std::optional<Time> notBefore;  // empty when unreadable
    std::optional<Time> notAfter;
};

// The agent's client certificates are those of store "My" under their two
// friendly names.
Role roleOf(const std::string& storeName, const std::string& friendlyName);

CertSummary summarize(const certs::CertContext& cert, const std::string& storeName);

// "29d 23h left", "5m 10s left", "expired 2h ago": the two largest units,
// the second left out when zero.
std::string timeLeftText(Time notAfter, Time now);

// One block of "Name:  value" lines per certificate. `details` adds the
// serial, the bound key and the PEM text (certctl show).
void printText(std::ostream& out, const certs::CertContext& cert, const std::string& storeName,
               certs::CertUtilityInterface& store, bool details, Time now);

// {"store": ..., "certificates": [{"friendlyName", "role", "subject",
// "issuer", "serial", "sha256", "notBefore", "notAfter", "secondsToExpiry"},
// ...]}; times in ISO 8601 UTC, secondsToExpiry negative once expired, both
// null when the certificate's time is unreadable.
Json::Value toJson(const std::string& storeName, const std::vector<certs::CertContext>& stored,
                   Time now);

}  // namespace ndpx::certctl
