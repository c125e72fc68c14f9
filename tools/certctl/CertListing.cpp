#include "certctl/CertListing.h"

#include "certs/CertificateUtil.h"
#include "certs/OpenSslUtil.h"

#include <mfw/corestring.h>

#include <ctime>
#include <ostream>

namespace ndpx::certctl {
namespace {

using std::chrono::seconds;

std::optional<Time> timePointOf(const ASN1_TIME* time) {
    std::tm tm{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &tm) != 1) {
        return std::nullopt;
    }
    return Time{seconds{::timegm(&tm)}};
}

// "2024-05-31 12:00:00 UTC" for people, ISO 8601 for scripts.
std::string utcText(const std::optional<Time>& when, bool iso) {
    const std::time_t t = when ? static_cast<std::time_t>(when->time_since_epoch().count()) : 0;
    std::tm tm{};
    if (!when || ::gmtime_r(&t, &tm) == nullptr) {
        return "(unreadable)";
    }
    char text[32] = "";
    if (iso) {
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    } else {
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &tm);
    }
    return text;
}

std::string durationText(seconds d) {
    struct Unit {
        long long size;
        const char* suffix;
    };
    constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "m"}, {1, "s"}};
    const long long total = d.count();
    std::size_t first = 0;
    while (first + 1 < std::size(kUnits) && total < kUnits[first].size) {
        ++first;
    }
    std::string text = std::to_string(total / kUnits[first].size) + kUnits[first].suffix;
    if (first + 1 < std::size(kUnits)) {
        const Unit& next = kUnits[first + 1];
        const long long rest = total % kUnits[first].size / next.size;
        if (rest != 0) {
            text += " " + std::to_string(rest) + next.suffix;
        }
    }
    return text;
}

const char* roleName(Role role) {
    switch (role) {
        case Role::Current:
            return "current";
        case Role::Pending:
            return "pending";
        case Role::Other:
            break;
    }
    return "other";
}

const char* roleText(Role role) {
    return role == Role::Current ? "current client certificate (in use)"
                                 : "pending client certificate (renewed, not yet in use)";
}

std::string validityText(const CertSummary& s, Time now) {
    std::string text = timeLeftText(*s.notAfter, now);
    if (s.notBefore && now < *s.notBefore) {
        text += ", not yet valid";
    }
    return text;
}

}  // namespace

Time currentTime() {
    // Rounded down, so a certificate is never shown with more time than it has.
    return std::chrono::floor<seconds>(std::chrono::system_clock::now());
}

Role roleOf(const std::string& storeName, const std::string& friendlyName) {
    if (!CORE::iequals(storeName, certs::kClientCertStoreName)) {
        return Role::Other;
    }
    if (friendlyName == certs::CertificateUtil::FriendlyName(false)) {
        return Role::Current;
    }
    if (friendlyName == certs::CertificateUtil::FriendlyName(true)) {
        return Role::Pending;
    }
    return Role::Other;
}

CertSummary summarize(const certs::CertContext& cert, const std::string& storeName) {
    X509* x509 = certs::x509Of(cert);
    CertSummary s;
    s.friendlyName = cert.friendlyName;
    s.role = roleOf(storeName, cert.friendlyName);
    if (x509 == nullptr) {
        return s;
    }
    s.subject = certs::nameToText(X509_get_subject_name(x509));
    s.issuer = certs::nameToText(X509_get_issuer_name(x509));
    s.serial = certs::serialHexOf(x509);
    s.sha256 = certs::thumbprintOf(x509);
    s.notBefore = timePointOf(X509_get0_notBefore(x509));
    s.notAfter = timePointOf(X509_get0_notAfter(x509));
    return s;
}

std::string timeLeftText(Time notAfter, Time now) {
    const seconds left = notAfter - now;
    // Valid up to, not at, its end time, as the expiry checks judge it.
    return left.count() > 0 ? durationText(left) + " left"
                            : "expired " + durationText(-left) + " ago";
}

void printText(std::ostream& out, const certs::CertContext& cert, const std::string& storeName,
               certs::CertUtilityInterface& store, bool details, Time now) {
    const CertSummary s = summarize(cert, storeName);
    const bool client = s.role != Role::Other;
    out << "Friendly name: " << (s.friendlyName.empty() ? "(none)" : s.friendlyName) << '\n';
    if (client) {
        out << "Role:          " << roleText(s.role) << '\n';
    }
    out << "Subject:       " << s.subject << '\n' << "Issuer:        " << s.issuer << '\n';
    if (client || details) {
        out << "Serial:        " << s.serial << '\n';
    }
    out << "Valid from:    " << utcText(s.notBefore, false) << '\n'
        << "Valid to:      " << utcText(s.notAfter, false);
    if (client && s.notAfter) {
        out << " (" << validityText(s, now) << ')';
    }
    out << '\n' << "SHA-256:       " << s.sha256 << '\n';
    if (!details) {
        return;
    }
    if (cert.keyContainer.empty()) {
        out << "Private key:   (none)\n";
    } else {
        out << "Private key:   " << cert.keyContainer
            << (store.KeyExists(cert.keyContainer) ? "" : " (missing)") << '\n';
    }
    if (X509* x509 = certs::x509Of(cert)) {
        out << certs::x509ToPem(x509);
    }
}

Json::Value toJson(const std::string& storeName, const std::vector<certs::CertContext>& stored,
                   Time now) {
    Json::Value root(Json::objectValue);
    root["store"] = storeName;
    Json::Value& list = root["certificates"] = Json::Value(Json::arrayValue);
    for (const certs::CertContext& cert : stored) {
        const CertSummary s = summarize(cert, storeName);
        Json::Value& c = list.append(Json::Value(Json::objectValue));
        c["friendlyName"] = s.friendlyName;
        c["role"] = roleName(s.role);
        c["subject"] = s.subject;
        c["issuer"] = s.issuer;
        c["serial"] = s.serial;
        c["sha256"] = s.sha256;
        c["notBefore"] = s.notBefore ? Json::Value(utcText(s.notBefore, true)) : Json::Value();
        c["notAfter"] = s.notAfter ? Json::Value(utcText(s.notAfter, true)) : Json::Value();
        c["secondsToExpiry"] =
            s.notAfter ? Json::Value(static_cast<Json::Int64>((*s.notAfter - now).count()))
                       : Json::Value();
    }
    return root;
}

}  // namespace ndpx::certctl
